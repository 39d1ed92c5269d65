// Published state: a value whose every change reaches its subscribers, in
// order, on the thread that made the change (the main thread for all agent
// state). A subscription ends when its handle is destroyed.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <utility>

namespace quillfort {

class Subscription {
public:
    Subscription() = default;
    explicit Subscription(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
    Subscription(Subscription&& other) noexcept : cancel_(std::exchange(other.cancel_, nullptr)) {}
    Subscription& operator=(Subscription&& other) noexcept {
        if (this != &other) {
            reset();
            cancel_ = std::exchange(other.cancel_, nullptr);
        }
        return *this;
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    ~Subscription() { reset(); }

    void reset() {
        if (auto cancel = std::exchange(cancel_, nullptr)) cancel();
    }

private:
    std::function<void()> cancel_;
};

template <class T>
class Observable {
public:
    using Observer = std::function<void(const T&)>;

    explicit Observable(T initial = T{}) : state_(std::make_shared<State>(std::move(initial))) {}

    [[nodiscard]] const T& value() const noexcept { return state_->value; }

    // Replaces the value and tells every subscriber, even when it compares equal:
    // observers see every change, including a preset changed just before removal.
    void set(T newValue) {
        state_->value = std::move(newValue);
        notify();
    }

    // Changes the value in place, then tells every subscriber.
    template <class Mutation>
    void mutate(Mutation&& mutation) {
        std::forward<Mutation>(mutation)(state_->value);
        notify();
    }

    [[nodiscard]] Subscription subscribe(Observer observer) {
        const auto id = state_->nextID++;
        state_->observers.emplace(id, std::move(observer));
        std::weak_ptr<State> weak = state_;
        return Subscription([weak, id] {
            if (auto state = weak.lock()) state->observers.erase(id);
        });
    }

private:
    struct State {
        explicit State(T v) : value(std::move(v)) {}
        T value;
        std::map<std::uint64_t, Observer> observers;
        std::uint64_t nextID = 0;
    };

    void notify() {
        // Copy first: an observer may subscribe or unsubscribe while being told.
        auto observers = state_->observers;
        for (const auto& [id, observer] : observers) {
            if (state_->observers.contains(id)) observer(state_->value);
        }
    }

    std::shared_ptr<State> state_;
};

}  // namespace quillfort
