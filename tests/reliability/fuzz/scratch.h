// Scratch directories of the fuzz targets: in memory where the machine has
// /dev/shm, since the store's commits wait for the disk and would slow every
// execution down to a few dozen per second.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace vrix::fuzz {

class Scratch {
  public:
    Scratch() {
        std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string tmpl = base + "/vrixdb-fuzz-XXXXXX";
        path_ = mkdtemp(tmpl.data()) ? tmpl : base;
    }
    ~Scratch() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

} // namespace vrix::fuzz
