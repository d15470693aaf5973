// What a device's log says about the camera sessions it holds: the
// library's lines (found by tag and text), read against the library's fixed
// call orders, fill one session model (tools/model) per process session.
//
// It never guesses. A call whose line the log holds is seen; a call that
// the library makes at a fixed place in an operation whose lines the log
// holds is inferred, stamped with the time of the line it follows from; a
// value the library does not log (a timeout, a perf lock's handle) is
// marked unknown. Where two objects of one class cannot be told apart, the
// calls are not attributed to either and both are marked ambiguous. What the
// log could not show (levels switched off, lines logd folded or dropped,
// gaps between files, a process cut short) is said in the session's
// coverage.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "LogRead.h"
#include "Session.h"

namespace qrnscan {

// The tags read: the library's, logd's notices, init's service lines and
// the C library's fatal-signal lines.
const std::vector<std::string>& tags();

class Interpreter {
  public:
    Interpreter();
    ~Interpreter();
    Interpreter(const Interpreter&) = delete;
    Interpreter& operator=(const Interpreter&) = delete;

    // Items in the order the reader gives them.
    void add(const qrnlog::Item& item);
    // Every process session seen, in the order they began, each derived and
    // with its coverage. inputs describe what was read.
    std::vector<qrnsession::Session> finish(const std::vector<qrnlog::InputInfo>& inputs);

  private:
    struct State;
    std::unique_ptr<State> mState;
};

}  // namespace qrnscan
