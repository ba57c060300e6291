#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>

/// These tests use the devices of a simulation, and start programs: in a sandbox or not at all.
int main(int argc, char **argv) {
    if (getenv("FLASHSIM_NODES") == nullptr) {
        fprintf(stderr, "not in a sandbox: run this by flashsim --program\n");
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
