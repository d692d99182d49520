// The full-message writer's data file as the tests read it.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "core/gvar.h"
#include "varnix.h"

namespace varnix::test {

// Today's data file of this process.
inline std::string tong_data_path() {
    const std::time_t now = std::time(nullptr);
    char date[16] = "";
    std::strftime(date, sizeof date, "%Y%m%d", std::localtime(&now));
    const char* name = gvar.cont_nm[0] ? gvar.cont_nm : gvar.proc_nm;
    return std::string(tong_log_home_dir) + "/tong_log_" + date + "_" + name + "_" + std::to_string(getpid()) + ".dat";
}

// One record as the writer stores it, its GID taken from gid_at of the telegram; its time stamp is checked to be
// now and then taken over.
inline void expect_tong_record(const std::string& got, const std::string& tel, char flag, size_t gid_at = 9) {
    ASSERT_EQ(got.size(), tel.size() + 118);
    const std::string stamp = got.substr(30, 16);
    EXPECT_TRUE(stamp.find_first_not_of("0123456789") == std::string::npos &&
                std::abs(std::stol(stamp.substr(0, 10)) - std::time(nullptr)) < 10);
    char host[65] = {}, len[8];
    ASSERT_EQ(gethostname(host, 64), 0);
    std::snprintf(len, sizeof len, "%06zu", tel.size());
    EXPECT_EQ(got, tel.substr(gid_at, 30) + stamp + std::string(host, 64) + flag + len + tel + '\n');
}

}  // namespace varnix::test
