# Writes the files ASSETS ("name=path|name=path...") into the header OUT as
# byte arrays: what the program serves or records without reading any file.
#   cmake -DOUT=assets.h "-DASSETS=kPage=index.html|kClip=clip.h264" -P embed.cmake
string(REPLACE "|" ";" assets "${ASSETS}")
set(text "// Generated at build time by tools/embed.cmake: do not edit.\n#pragma once\n\n")
foreach(asset ${assets})
  string(REGEX MATCH "^([A-Za-z0-9_]+)=(.*)$" ok "${asset}")
  set(name ${CMAKE_MATCH_1})
  set(path ${CMAKE_MATCH_2})
  file(READ ${path} hex HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(APPEND text "inline constexpr unsigned char ${name}[] = {${bytes}};\n")
endforeach()
file(WRITE ${OUT}.new "${text}")
file(COPY_FILE ${OUT}.new ${OUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUT}.new)
