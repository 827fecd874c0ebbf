#pragma once

#include <utility>

namespace nexnipc {

// What is to be undone when a scope is left half-way, also by an exception. It must not throw.
template <typename Work>
class Undo {
public:
    explicit Undo(Work work) : work_(std::move(work)) {}
    ~Undo() {  // NOLINT(bugprone-exception-escape): undoing does not throw, see above
        if (armed_) work_();
    }
    Undo(const Undo&) = delete;
    Undo& operator=(const Undo&) = delete;

    // All went well.
    void dismiss() { armed_ = false; }

private:
    Work work_;
    bool armed_ = true;
};

}  // namespace nexnipc
