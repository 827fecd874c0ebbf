#include "Heater.h"

#include <array>
#include <chrono>
#include <cstdio>

namespace thermostat {

Heater::Heater(std::function<void(double temperature)> changeHandler) : onChange(std::move(changeHandler)) {
    thread = std::thread([this] { run(); });
}

Heater::~Heater() { stop(); }

double Heater::temperature() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return current;
}

void Heater::setTarget(double target, std::function<void()> onReached) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        jobs.push_back({target, std::move(onReached)});
    }
    wake.notify_one();
}

void Heater::stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    wake.notify_one();
    if (thread.joinable()) thread.join();
}

void Heater::run() {
    double drift = 0.1;
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
        if (wake.wait_for(lock, std::chrono::milliseconds(500), [this] { return stopping || !jobs.empty(); })) {
            if (stopping) return;
            const Job job = std::move(jobs.front());
            jobs.pop_front();
            lock.unlock();
            heat(job);
        } else {
            const double next = current + drift;
            drift = -drift;
            lock.unlock();
            change(next);
        }
        lock.lock();
    }
}

void Heater::heat(const Job& job) {
    std::this_thread::sleep_for(std::chrono::milliseconds(150));  // A real one takes longer.
    change(job.target);
    job.onReached();
}

void Heater::change(double newTemperature) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        current = newTemperature;
    }
    onChange(newTemperature);
}

std::string toText(double temperature) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f", temperature);
    return text.data();
}

}  // namespace thermostat
