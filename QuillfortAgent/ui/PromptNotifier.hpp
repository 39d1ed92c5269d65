// A desktop notification for a prompt that arrives while the user works in
// another application: the decision window cannot come forward then without
// taking the keyboard from what they type in, so the notification names the
// process and host and offers "Allow Once", "Block Once" and "Show". An answer
// given any way withdraws it. With no notification server nothing changes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QuillfortAgent/coordinator/Observable.hpp"
#include "model/Uuid.hpp"

class QObject;

namespace quillfort {
class AgentPromptCoordinator;
}

namespace quillfort::ui {

// Where notifications go: the desktop's notification server, or a test's fake.
class NotificationSink {
public:
    struct Notification {
        std::string summary;
        std::string body;
        std::vector<std::pair<std::string, std::string>> actions;  // key, label
    };
    virtual ~NotificationSink() = default;
    // Shows `notification` in place of the one `replaces` names (0: none);
    // `shown` gets the server's id for it, or 0 when none could be shown.
    virtual void notify(std::uint32_t replaces, const Notification& notification,
                        std::function<void(std::uint32_t)> shown) = 0;
    virtual void close(std::uint32_t id) = 0;
    // The user chose action `key` on notification `id`.
    std::function<void(std::uint32_t id, const std::string& key)> onAction;
};

// org.freedesktop.Notifications on the session bus; calls never block.
[[nodiscard]] std::unique_ptr<NotificationSink> makeDesktopNotificationSink();

class PromptNotifier {
public:
    static constexpr const char* allowOnceAction = "allow-once";
    static constexpr const char* blockOnceAction = "block-once";
    static constexpr const char* showAction = "default";

    // `userWorksElsewhere` says whether another application has the keyboard;
    // `showWindow` brings the decision window forward.
    PromptNotifier(std::shared_ptr<AgentPromptCoordinator> coordinator, std::unique_ptr<NotificationSink> sink,
                   std::function<bool()> userWorksElsewhere, std::function<void()> showWindow);
    ~PromptNotifier();

    // The prompt the notification on screen is about, if any.
    [[nodiscard]] std::optional<Uuid> notifiedPrompt() const { return prompt_; }

private:
    void queueChanged();
    void withdraw();
    void actionChosen(std::uint32_t id, const std::string& key);

    std::shared_ptr<AgentPromptCoordinator> coordinator_;
    std::unique_ptr<NotificationSink> sink_;
    std::function<bool()> userWorksElsewhere_;
    std::function<void()> showWindow_;
    Subscription subscription_;
    std::vector<Uuid> known_;           // the queue as last seen
    std::optional<Uuid> prompt_;        // the prompt of the notification on screen
    std::uint32_t notificationID_ = 0;  // the server's id for it; 0 while it is being shown
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace quillfort::ui
