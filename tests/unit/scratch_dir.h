// A fresh directory under the test temp dir, named <prefix>XXXXXX by
// mkdtemp, removed with all it holds on destruction; file() names a path in
// it, write() creates a file there with the given bytes.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

namespace test_dirs {

class ScratchDir {
  public:
    explicit ScratchDir(std::string_view prefix) {
        std::string templ = ::testing::TempDir() + std::string(prefix) + "XXXXXX";
        if (::mkdtemp(templ.data()) != nullptr) {
            path_ = templ;
        }
    }
    ~ScratchDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;

    std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }
    std::string write(std::string_view name, std::string_view contents) const {
        const std::string p = file(name);
        std::ofstream(p, std::ios::binary) << contents;
        return p;
    }

  private:
    std::string path_;
};

}  // namespace test_dirs
