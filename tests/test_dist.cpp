#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "core/readcfg.h"
#include "kit/config_file.h"
#include "support/test_ipc.h"

namespace varnix {
namespace {

// Section headers and keywords of a configuration text, in order, each with
// the section it belongs to; comments and blank lines left out.
std::vector<std::string> outline(const std::string& text) {
    std::vector<std::string> keys;
    std::istringstream in(text);
    std::string section;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        if (line[0] == '[') section = line;
        keys.push_back(section + " " + line.substr(0, line.find(" =")));
    }
    return keys;
}

// The installed example names every section and key the kit writes, in the
// same order; the reader takes every value from it, comments and all; its IPC
// keys are real ones, outside the block of keys the tests derive from pids.
TEST(Dist, ExampleConfigurationHasTheKitsKeysAndHostKeys) {
    const std::string text = test::read_file(VARNIX_EXAMPLE_CFG);
    ASSERT_FALSE(text.empty());
    const std::vector<std::string> keys = outline(text);
    EXPECT_EQ(keys, outline(kit::config_text(kit::AgentConfig{})));
    char token[kCfgTokenMax + 1];
    for (const std::string& k : keys) {
        const std::string section = k.substr(1, k.find(']') - 1), key = k.substr(k.find(' ') + 1);
        if (key[0] == '[') continue;
        EXPECT_EQ(get_nth_token_in_file_section(VARNIX_EXAMPLE_CFG, section.c_str(), key.c_str(), 1, token), 1) << key;
        if (key.ends_with("KEY")) {
            const long ipc_key = std::strtol(token, nullptr, 10);
            EXPECT_TRUE(ipc_key > 0 && kit::owner_of_key(static_cast<key_t>(ipc_key)) < 0) << key;
        }
    }
}

}  // namespace
}  // namespace varnix
