// Entry of every unit-test executable. The tests use the real fixed paths as root, so they refuse to start
// anywhere but in the throw-away system that scripts/sandbox makes.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (::access("/run/mxadmin-sandbox", F_OK) != 0) {
        std::fputs("These tests change system files. Run them as: scripts/sandbox build/<preset>/<name>_test\n",
                   stderr);
        return 1;
    }
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
