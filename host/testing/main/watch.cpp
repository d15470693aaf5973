#include <stdio.h>

#include <qrnhost/testing_main.h>
#include <memory>
#include <string>

namespace qrnhost::testing {
namespace {

// Failures found while a test runs belong to it, at its own definition: the
// harness cannot know the line of the call that waited.
void failRunningTest(const std::string& message) {
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    if (test != nullptr)
        ADD_FAILURE_AT(test->file(), test->line()) << message;
    else
        ADD_FAILURE() << message;
}

class Watcher : public ::testing::EmptyTestEventListener {
  public:
    void OnTestStart(const ::testing::TestInfo& /*test*/) override {
        mPrevious = setFailureReporter(failRunningTest);
        reset();
        mRecorder = std::make_unique<Capture>();
        mRecorder->keepLast(kKept);
        markClean();
    }

    // Called once the fixture is destroyed, before the result is printed, so
    // a failure added here is the test's own.
    void OnTestEnd(const ::testing::TestInfo& test) override {
        waitForDumps();
        for (const Leftover& l : leftovers())
            ADD_FAILURE_AT(test.file(), test.line()) << "the test left a " << leftName(l.kind) << " behind: " << l.what;
        if (test.result()->Failed()) {
            const std::string happened = whatHappened(mRecorder.get(), kShown);
            printf("[ qrnhost ] what %s.%s did, as the harness saw it:\n%s", test.test_suite_name(), test.name(),
                   happened.empty() ? "(nothing logged, traced or called)\n" : happened.c_str());
            fflush(stdout);
        }
        mRecorder.reset();
        reset();
        setFailureReporter(std::move(mPrevious));
    }

  private:
    static constexpr size_t kKept = 2000;
    static constexpr size_t kShown = 100;
    std::unique_ptr<Capture> mRecorder;
    FailureReporter mPrevious;
};

}  // namespace

void watchEveryTest() {
    static bool watching = false;
    if (watching) return;
    watching = true;
    // Appended after the default printer: a failure added at a test's end
    // is printed with the test, as GoogleTest's own leak-checker sample does.
    ::testing::UnitTest::GetInstance()->listeners().Append(new Watcher);
}

}  // namespace qrnhost::testing
