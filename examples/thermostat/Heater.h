#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace thermostat {

/// The device behind the service: a thread of its own brings the room to one target after the other, and
/// the room's temperature drifts a little while there is nothing to do. Thread-safe.
class Heater {
public:
    /// `changeHandler` runs on the heater's thread for every change of the temperature.
    explicit Heater(std::function<void(double temperature)> changeHandler);
    ~Heater();
    Heater(const Heater&) = delete;
    Heater& operator=(const Heater&) = delete;

    double temperature() const;

    /// `onReached` runs later, on the heater's thread; never, when the heater is stopped first.
    void setTarget(double target, std::function<void()> onReached);

    /// Ends the thread; afterwards none of the functions runs any more.
    void stop();

private:
    struct Job {
        double target;
        std::function<void()> onReached;
    };

    void run();
    void heat(const Job& job);
    void change(double newTemperature);

    const std::function<void(double)> onChange;
    mutable std::mutex mutex;
    std::condition_variable wake;
    std::deque<Job> jobs;
    double current = 18.0;
    bool stopping = false;
    std::thread thread;
};

/// A temperature as it stands in messages: one decimal.
std::string toText(double temperature);

}  // namespace thermostat
