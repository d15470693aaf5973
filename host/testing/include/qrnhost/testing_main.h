// testing_main: GoogleTest's main, with the harness watching every test.
//
// Link qrncam_sysutils::testing_main (and GTest::gtest) where a test program
// would link GTest::gtest_main; pkg-config's qrncam_sysutils-testing brings
// it to a program that has no main() of its own. Then, around every test:
//  - before it: the platform is reset (qrnhost::testing::reset()), a Capture
//    starts recording everything logged and traced (DEBUG and up, both
//    sinks), and the properties are noted (markClean());
//  - during it: a failure the harness finds (a wait whose deadline passed,
//    a kernel node the library never opens) fails the test;
//  - after it, once its fixture is gone: the flushes of the caches it
//    dropped are waited for, and each item it left held fails the test,
//    named (leftovers(): a scenario registered, a perf lock held, a death
//    recipient linked, a dump not written, a property it set), unless the
//    test declared it with leaveOnPurpose();
//  - when it failed: what it logged and traced and the calls the services
//    saw are printed (the last 100 of each, whatHappened());
//  - then the platform is reset again.
// Captures that the test makes stack on the recording one (capture.h).
//
// A program with a main() of its own gets the same by calling
// watchEveryTest() before RUN_ALL_TESTS():
//   int main(int argc, char** argv) {
//       ::testing::InitGoogleTest(&argc, argv);
//       qrnhost::testing::watchEveryTest();
//       return RUN_ALL_TESTS();
//   }
#pragma once

#include <gtest/gtest.h>
#include <qrnhost/testing.h>

namespace qrnhost::testing {

// Adds the listener that does the above to GoogleTest's listeners (once,
// however often it is called).
void watchEveryTest();

}  // namespace qrnhost::testing
