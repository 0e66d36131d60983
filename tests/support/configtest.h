/* Fixture for the configuration and counters: a fresh board, an empty
 * application-data root in a temporary folder, a zeroed state record. */
#ifndef VELA_TEST_CONFIGTEST_H
#define VELA_TEST_CONFIGTEST_H

#include <cstdlib>
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
    /* A file of the product folder. */
    std::string product_file(const std::string& name) const { return root.path() + "/Orvik/vela/" + name; }
    void write_product_file(const std::string& name, const std::string& text) const
    {
        std::string dir = root.path() + "/Orvik";
        mkdir(dir.c_str(), 0755);
        mkdir((dir + "/vela").c_str(), 0755);
        write_file(product_file(name), text);
    }

    TempDir root;
};

} // namespace vt

#endif
