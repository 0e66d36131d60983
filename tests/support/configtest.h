/* Fixture for the configuration and counters: a fresh board, an empty
 * application-data root in a temporary folder, a zeroed state record. */
#ifndef VELA_TEST_CONFIGTEST_H
#define VELA_TEST_CONFIGTEST_H

#include <cstdlib>
#include <filesystem>
#include <string>

#include "remote.h"
#include "simtest.h"
#include "tempdir.h"

namespace vt {

class ConfigTest : public SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        setenv("ORVIK_CONFIGPATH", root.path().c_str(), 1);
        state = state_s{};
    }
    void TearDown() override
    {
        MIniData_Destroy(state.h_ini);
        state = state_s{};
        unsetenv("ORVIK_CONFIGPATH");
    }
    /* The root becomes the board's /var/opt, where its faults reach the
     * files; the test still reaches them through the sandbox. */
    void root_on_board()
    {
        setenv("ORVIK_CONFIGPATH", "/var/opt", 1);
        folder_ = sim::sandbox() + "/fs/var/opt/Orvik/vela/";
    }
    /* A file of the product folder. */
    std::string product_file(const std::string& name) const { return folder_ + name; }
    void write_product_file(const std::string& name, const std::string& text) const
    {
        std::filesystem::create_directories(folder_);
        write_file(product_file(name), text);
    }

    TempDir root;
    std::string folder_ = root.path() + "/Orvik/vela/";
};

} // namespace vt

#endif
