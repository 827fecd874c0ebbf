#pragma once

#include <chrono>
#include <future>

namespace nipctest {

/// Holds one thread at a known point until the test lets it go on. Gives up after ten seconds, so that a
/// failing test ends.
class Gate {
public:
    /// In the thread to be held.
    void pass() {
        reached.set_value();
        opened.get_future().wait_for(std::chrono::seconds(10));
    }
    bool awaitArrival() { return reached.get_future().wait_for(std::chrono::seconds(10)) == std::future_status::ready; }
    void open() { opened.set_value(); }

private:
    std::promise<void> reached;
    std::promise<void> opened;
};

}  // namespace nipctest
