#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>

/// These tests stop processes as root: they start in a simulated device or not at all.
int main(int argc, char **argv) {
    const char *state = getenv("FLASHSIM_STATE");
    if (state == nullptr || access(state, F_OK) != 0 || getppid() != 1) {
        fprintf(stderr, "not in a simulated device: run this by flashsim --program\n");
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
