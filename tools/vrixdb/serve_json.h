// The JSON that vrixdb serve answers with: a small writer of objects and
// arrays (names and strings escaped), and the one-line error body.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace vrixtool {

class JsonWriter {
  public:
    JsonWriter &open(char bracket) { return sep(), text_ += bracket, first_ = true, *this; }
    JsonWriter &close(char bracket) { return text_ += bracket, first_ = false, *this; }
    // A member name inside an object; the value follows.
    JsonWriter &key(const std::string &name) {
        sep();
        quote(name);
        text_ += ':';
        first_ = true;
        return *this;
    }
    JsonWriter &value(int64_t v) { return sep(), text_ += std::to_string(v), *this; }
    JsonWriter &value(bool v) { return sep(), text_ += v ? "true" : "false", *this; }
    JsonWriter &value(const std::string &s) { return sep(), quote(s), *this; }
    JsonWriter &value(const char *s) { return value(std::string(s)); }
    const std::string &text() const { return text_; }

  private:
    void sep() {
        if (!first_) text_ += ',';
        first_ = false;
    }
    void quote(const std::string &s) {
        text_ += '"';
        for (const unsigned char c : s) {
            if (c == '"' || c == '\\') {
                text_ += '\\';
                text_ += static_cast<char>(c);
            } else if (c < 0x20) {
                char esc[8];
                std::snprintf(esc, sizeof esc, "\\u%04x", c);
                text_ += esc;
            } else {
                text_ += static_cast<char>(c);
            }
        }
        text_ += '"';
    }

    std::string text_;
    bool first_ = true;
};

// {"error":"..."} on one line.
inline std::string json_error(const std::string &message) {
    JsonWriter j;
    j.open('{').key("error").value(message).close('}');
    return j.text() + "\n";
}

} // namespace vrixtool
