// The main() of testing_main. In an archive member of its own, so that a
// program with its own main() that calls watchEveryTest() does not get it.
#include <qrnhost/testing_main.h>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    qrnhost::testing::watchEveryTest();
    return RUN_ALL_TESTS();
}
