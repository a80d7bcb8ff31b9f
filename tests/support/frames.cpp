#include "frames.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <iterator>

namespace vrix::test {

std::vector<unsigned char> make_frame(int ch, int sec, bool key, int payload, unsigned scale,
                                      unsigned seq) {
    if (payload < 37) payload = 37; // room for the channel byte
    std::vector<unsigned char> f(16 + static_cast<size_t>(payload));
    const uint32_t words[4] = {static_cast<uint32_t>(payload), static_cast<uint32_t>(sec), seq,
                               scale};
    for (int w = 0; w < 4; ++w)
        for (int b = 0; b < 4; ++b)
            f[w * 4 + b] = static_cast<unsigned char>(words[w] >> (8 * b));
    uint32_t x = static_cast<uint32_t>(ch) * 7919u + static_cast<uint32_t>(sec) * 31u + seq * 131u;
    for (size_t i = 16; i < f.size(); ++i) {
        x = x * 1103515245u + 12345u;
        f[i] = static_cast<unsigned char>(x >> 16);
    }
    f[16 + 2] = key ? 0x05 : 0x41;
    f[16 + 36] = static_cast<unsigned char>(ch - 1);
    return f;
}

std::tm local_tm(long long sec) {
    const time_t t = static_cast<time_t>(sec);
    std::tm tm{};
    localtime_r(&t, &tm);
    return tm;
}

std::vector<unsigned char> file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::string> rows(const std::string &db, const std::string &sql) {
    std::vector<std::string> out;
    sqlite3 *h = nullptr;
    if (sqlite3_open_v2(db.c_str(), &h, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_busy_timeout(h, 5000); // the library may be writing right now
        sqlite3_exec(
            h, sql.c_str(),
            [](void *p, int n, char **v, char **) {
                std::string row;
                for (int i = 0; i < n; ++i) {
                    if (i) row += ',';
                    row += v[i] ? v[i] : "NULL";
                }
                static_cast<std::vector<std::string> *>(p)->push_back(row);
                return 0;
            },
            &out, nullptr);
    }
    sqlite3_close(h);
    return out;
}

void exec(const std::string &db, const std::string &sql) {
    sqlite3 *h = nullptr;
    sqlite3_open(db.c_str(), &h);
    EXPECT_EQ(sqlite3_exec(h, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
    sqlite3_close(h);
}

} // namespace vrix::test
