/* Fixture for unit tests that run the program's modules on the simulated
 * board linked into the test. */
#ifndef VELA_TEST_SIMTEST_H
#define VELA_TEST_SIMTEST_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim.h"

namespace vt {

class SimTest : public testing::Test {
protected:
    /* The scenario the board starts from; override for another board. */
    virtual std::string scenario() const { return ""; }
    void SetUp() override { ASSERT_EQ("", sim::reset(scenario())); }
};

/* Journal entries (no timestamps) that mention needle. */
std::vector<std::string> entries(const std::string& needle);

} // namespace vt

#endif
