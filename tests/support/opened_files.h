// Test support: the names (without their directory) of the files the library
// opens while an OpenedFiles lives, for tests of how often a path opens them.
#pragma once

#include "core/file_io.h"

#include <filesystem>
#include <set>
#include <string>

namespace vrix::test {

class OpenedFiles : public vrix::io::Observer {
  public:
    OpenedFiles() { vrix::io::set_observer(this); }
    ~OpenedFiles() override { vrix::io::set_observer(nullptr); }
    OpenedFiles(const OpenedFiles &) = delete;
    OpenedFiles &operator=(const OpenedFiles &) = delete;

    void before(const vrix::io::Access &a) override {
        if (a.op == vrix::io::Op::Open)
            names.insert(std::filesystem::path(a.path).filename().string());
    }

    std::multiset<std::string> names;
};

} // namespace vrix::test
