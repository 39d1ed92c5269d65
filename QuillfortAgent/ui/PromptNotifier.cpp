#include "QuillfortAgent/ui/PromptNotifier.hpp"

#include <algorithm>
#include <utility>

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/coordinator/TrafficPromptViewModel.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort::ui {

namespace {

constexpr const char* service = "org.freedesktop.Notifications";
constexpr const char* path = "/org/freedesktop/Notifications";

class DesktopNotificationSink final : public QObject, public NotificationSink {
    Q_OBJECT

public:
    DesktopNotificationSink() : bus_(QDBusConnection::sessionBus()) {
        if (!bus_.isConnected()) return;
        bus_.connect(service, path, service, "ActionInvoked", this, SLOT(actionInvoked(uint, QString)));
    }

    void notify(std::uint32_t replaces, const Notification& notification,
                std::function<void(std::uint32_t)> shown) override {
        if (!bus_.isConnected()) return shown(0);
        QStringList actions;
        for (const auto& [key, label] : notification.actions)
            actions << QString::fromStdString(key) << QString::fromStdString(label);
        QDBusMessage call = QDBusMessage::createMethodCall(service, path, service, "Notify");
        // A prompt waits for the user: the server must not let it time out.
        call << QString("Quillfort Agent") << static_cast<uint>(replaces) << QString("quillfort-agent")
             << QString::fromStdString(notification.summary) << QString::fromStdString(notification.body) << actions
             << QVariantMap{{"urgency", QVariant::fromValue<uchar>(2)}, {"desktop-entry", "quillfort-agent"},
                            {"category", "network"}, {"resident", true}}
             << 0;
        auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call, 5000), this);
        QObject::connect(watcher, &QDBusPendingCallWatcher::finished, this,
                         [shown = std::move(shown)](QDBusPendingCallWatcher* finished) {
                             const QDBusPendingReply<uint> reply = *finished;
                             finished->deleteLater();
                             if (reply.isError()) {
                                 // No server (or a broken one): the window alone does the asking.
                                 static bool said = false;
                                 if (!std::exchange(said, true))
                                     Logger(QuillfortLogCategory::agent)
                                         .log("Prompts get no desktop notification: %{public}s",
                                              reply.error().message().toStdString());
                                 return shown(0);
                             }
                             shown(reply.value());
                         });
    }

    void close(std::uint32_t id) override {
        if (!bus_.isConnected() || id == 0) return;
        bus_.asyncCall(QDBusMessage::createMethodCall(service, path, service, "CloseNotification")
                       << static_cast<uint>(id));
    }

private Q_SLOTS:
    void actionInvoked(uint id, const QString& key) {
        if (onAction) onAction(id, key.toStdString());
    }

private:
    QDBusConnection bus_;
};

}  // namespace

std::unique_ptr<NotificationSink> makeDesktopNotificationSink() {
    return std::make_unique<DesktopNotificationSink>();
}

PromptNotifier::PromptNotifier(std::shared_ptr<AgentPromptCoordinator> coordinator,
                               std::unique_ptr<NotificationSink> sink, std::function<bool()> userWorksElsewhere,
                               std::function<void()> showWindow)
    : coordinator_(std::move(coordinator)),
      sink_(std::move(sink)),
      userWorksElsewhere_(std::move(userWorksElsewhere)),
      showWindow_(std::move(showWindow)) {
    sink_->onAction = [this](std::uint32_t id, const std::string& key) { actionChosen(id, key); };
    for (const auto& session : coordinator_->activePrompts().value()) known_.push_back(session.id());
    subscription_ = coordinator_->activePrompts().subscribe([this](const auto&) { queueChanged(); });
}

PromptNotifier::~PromptNotifier() {
    *alive_ = false;
    withdraw();
}

void PromptNotifier::queueChanged() {
    const auto& queue = coordinator_->activePrompts().value();
    std::vector<Uuid> now;
    now.reserve(queue.size());
    for (const auto& session : queue) now.push_back(session.id());
    // Answered any way (window, bus, tool, this notification): withdrawn.
    if (prompt_ && std::ranges::find(now, *prompt_) == now.end()) withdraw();

    // The newest arrival while the user works elsewhere takes the one
    // notification; a burst of prompts never stacks up a pile of them.
    const AgentPromptSession* arrived = nullptr;
    for (const auto& session : queue)
        if (std::ranges::find(known_, session.id()) == known_.end()) arrived = &session;
    known_ = std::move(now);
    if (!arrived || !userWorksElsewhere_()) return;

    NotificationSink::Notification notification{
        TrafficPromptViewModel::notificationSummary(*arrived),
        TrafficPromptViewModel::notificationBody(*arrived, queue.size()),
        {{allowOnceAction, "Allow Once"}, {blockOnceAction, "Block Once"}, {showAction, "Show"}}};
    prompt_ = arrived->id();
    const Uuid id = arrived->id();
    sink_->notify(notificationID_, notification, [this, id, alive = alive_](std::uint32_t shown) {
        if (!*alive) return;
        if (prompt_ == id) {
            notificationID_ = shown;
            return;
        }
        // Answered while the server was still showing it.
        sink_->close(shown);
    });
}

void PromptNotifier::withdraw() {
    if (notificationID_ != 0) sink_->close(notificationID_);
    notificationID_ = 0;
    prompt_.reset();
}

void PromptNotifier::actionChosen(std::uint32_t id, const std::string& key) {
    if (id == 0 || id != notificationID_ || !prompt_) return;
    const Uuid prompt = *prompt_;
    if (key == allowOnceAction) {
        coordinator_->resolvePrompt(prompt, AgentPromptDecisionPreset::allowOnce);
    } else if (key == blockOnceAction) {
        coordinator_->resolvePrompt(prompt, AgentPromptDecisionPreset::blockOnce);
    } else {
        withdraw();
        showWindow_();
    }
}

}  // namespace quillfort::ui

#include "PromptNotifier.moc"
