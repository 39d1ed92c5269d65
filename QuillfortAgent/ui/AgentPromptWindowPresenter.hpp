// Owns the decision window: brings it forward, on top and active whenever the
// coordinator's queue is non-empty, hides it when the queue drains, and keeps
// the coordinator's promptWindowVisible current. One window for the life of
// the process; only its root view is rebound.
#pragma once

#include <memory>

#include <QWidget>

#include "QuillfortAgent/coordinator/Observable.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort {
class AgentPromptCoordinator;
}

namespace quillfort::ui {

class AgentPromptWindowView;

// A top-level window without close, minimise or zoom buttons that stays above
// other windows and cannot be closed by the window manager.
class QuillfortPromptWindow : public QWidget {
public:
    explicit QuillfortPromptWindow(QWidget* parent = nullptr);

protected:
    void closeEvent(QCloseEvent* event) override;
};

class AgentPromptWindowPresenter {
public:
    static constexpr QSize promptWindowSize{700, 780};
    static constexpr QSize promptWindowMinimumSize{580, 700};

    explicit AgentPromptWindowPresenter(std::shared_ptr<AgentPromptCoordinator> coordinator);
    ~AgentPromptWindowPresenter();
    AgentPromptWindowPresenter(const AgentPromptWindowPresenter&) = delete;
    AgentPromptWindowPresenter& operator=(const AgentPromptWindowPresenter&) = delete;

    void start();
    // Brings the decision window forward while a prompt waits (a notification's "Show").
    void bringForward();

    // Null before start().
    [[nodiscard]] QuillfortPromptWindow* window() const noexcept { return window_.get(); }
    [[nodiscard]] AgentPromptWindowView* rootView() const noexcept { return rootView_; }

private:
    QuillfortPromptWindow& promptWindow();
    void scheduleSync();
    void syncPromptWindow(bool hasActivePrompt);
    void show();
    void hide();

    std::shared_ptr<AgentPromptCoordinator> coordinator_;
    Logger logger_;
    Subscription activePromptObserver_;
    std::unique_ptr<QObject> context_;  // scopes queued syncs to the presenter's life
    std::unique_ptr<QuillfortPromptWindow> window_;
    AgentPromptWindowView* rootView_ = nullptr;
    bool syncPending_ = false;
    bool placed_ = false;  // sized and centred once; the user's size and place stand after that
};

}  // namespace quillfort::ui
