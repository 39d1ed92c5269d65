#include "QuillfortAgent/ui/AgentPromptWindowPresenter.hpp"

#include <QApplication>
#include <QCloseEvent>
#include <QScreen>
#include <QTimer>
#include <QVBoxLayout>
#include <QWindow>

#include <fmt/format.h>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/ui/AgentPromptWindowView.hpp"
#include "QuillfortAgent/ui/QFPalette.hpp"
#include "QuillfortAgent/ui/TrafficPromptView.hpp"

namespace quillfort::ui {

namespace {

// A window's frame as the log shows it: {{x, y}, {w, h}}.
std::string frameText(const QRect& frame) {
    return fmt::format("{{{{{}, {}}}, {{{}, {}}}}}", frame.x(), frame.y(), frame.width(), frame.height());
}

// Bit 1 of the occlusion state: some part of the window can be seen.
unsigned long occlusionState(const QWidget& window) {
    const QWindow* handle = window.windowHandle();
    return handle && handle->isExposed() ? 2UL : 0UL;
}

}  // namespace

QuillfortPromptWindow::QuillfortPromptWindow(QWidget* parent)
    : QWidget(parent, Qt::Window | Qt::WindowStaysOnTopHint | Qt::CustomizeWindowHint | Qt::WindowTitleHint) {}

void QuillfortPromptWindow::closeEvent(QCloseEvent* event) {
    // Closing would leave a prompt unanswered behind nothing; answering is the way out.
    event->ignore();
}

AgentPromptWindowPresenter::AgentPromptWindowPresenter(std::shared_ptr<AgentPromptCoordinator> coordinator)
    : coordinator_(std::move(coordinator)),
      logger_(QuillfortLogger::logger(QuillfortLogCategory::agent)),
      context_(std::make_unique<QObject>()) {
    activePromptObserver_ = coordinator_->activePrompts().subscribe([this](const auto&) { scheduleSync(); });
}

AgentPromptWindowPresenter::~AgentPromptWindowPresenter() = default;

void AgentPromptWindowPresenter::start() {
    logger_.log("Starting the Quillfort agent prompt window presenter.");
    (void)promptWindow();
    syncPromptWindow(!coordinator_->activePrompts().value().empty());
}

QuillfortPromptWindow& AgentPromptWindowPresenter::promptWindow() {
    if (window_) return *window_;
    window_ = std::make_unique<QuillfortPromptWindow>();
    auto& window = *window_;
    window.setObjectName("TrafficPromptWindow");
    window.setWindowTitle("Quillfort Prompt");
    window.setAccessibleName("Quillfort Prompt");
    window.setMinimumSize(promptWindowMinimumSize);
    QFPalette::styleWindow(window);

    auto* host = new QWidget(&window);
    host->setObjectName("TrafficPromptWindowHostView");
    auto* hostLayout = new QVBoxLayout(host);
    hostLayout->setContentsMargins(0, 0, 0, 0);
    rootView_ = new AgentPromptWindowView(coordinator_, host);
    hostLayout->addWidget(rootView_);
    auto* windowLayout = new QVBoxLayout(&window);
    windowLayout->setContentsMargins(0, 0, 0, 0);
    windowLayout->addWidget(host);
    window.resize(promptWindowSize);

    logger_.log("Created the Quillfort prompt window controller.");
    return window;
}

void AgentPromptWindowPresenter::scheduleSync() {
    // Queue changes arrive in bursts; the window follows once per turn of the
    // event loop, after the coordinator has finished changing its state.
    if (syncPending_) return;
    syncPending_ = true;
    QTimer::singleShot(0, context_.get(), [this] {
        syncPending_ = false;
        if (window_) syncPromptWindow(!coordinator_->activePrompts().value().empty());
    });
}

void AgentPromptWindowPresenter::syncPromptWindow(bool hasActivePrompt) {
    if (hasActivePrompt) {
        show();
    } else {
        hide();
    }
}

void AgentPromptWindowPresenter::show() {
    logger_.log("Prompt presenter received an active prompt and will bring the decision window forward.");
    auto& window = promptWindow();
    const bool wasForward = window.isVisible() && window.isActiveWindow();
    logger_.log(
        "Preparing to present the Quillfort prompt window. visible=%{bool,public}d key=%{bool,public}d "
        "main=%{bool,public}d totalWindows=%{public}ld",
        window.isVisible(), window.isActiveWindow(), window.isActiveWindow(),
        static_cast<long>(QGuiApplication::topLevelWindows().size()));

    // The widgets show the queue as it is now, before the window appears.
    rootView_->refresh();
    // The first time only: after that the window keeps the size and place the
    // user gave it, through every new prompt and every hide and show.
    if (!placed_) {
        placed_ = true;
        window.resize(promptWindowSize);
        const QScreen* screen = window.screen() ? window.screen() : QGuiApplication::primaryScreen();
        if (screen) {
            QRect frame = window.frameGeometry();
            frame.moveCenter(screen->availableGeometry().center());
            window.move(frame.topLeft());
        }
    }
    logger_.log("Switched the Quillfort agent activation policy to regular before presenting the prompt window.");
    if (!wasForward) rootView_->promptView().armInputGuard();

    window.show();
    logger_.log("showWindow(nil) returned for the Quillfort prompt window. visible=%{bool,public}d occlusion=%{public}lu",
                window.isVisible(), occlusionState(window));
    window.raise();
    window.activateWindow();
    logger_.log(
        "Activated and unhid the Quillfort agent before showing the prompt window. "
        "runningApplicationActivated=%{bool,public}d",
        window.isActiveWindow() || QGuiApplication::focusWindow() == window.windowHandle());
    logger_.log(
        "makeKeyAndOrderFront(nil) returned for the Quillfort prompt window. visible=%{bool,public}d "
        "key=%{bool,public}d main=%{bool,public}d",
        window.isVisible(), window.isActiveWindow(), window.isActiveWindow());

    if (coordinator_->promptWindowVisible().value() != window.isVisible()) {
        coordinator_->promptWindowVisible().set(window.isVisible());
    }
    logger_.log("orderFrontRegardless() returned for the Quillfort prompt window. visible=%{bool,public}d frame=%{public}s",
                window.isVisible(), frameText(window.frameGeometry()));
    logger_.log("Presented the Quillfort prompt window titled %{public}s.", window.windowTitle().toStdString());
}

void AgentPromptWindowPresenter::bringForward() {
    if (!window_ || coordinator_->activePrompts().value().empty()) return;
    window_->show();
    window_->raise();
    window_->activateWindow();
}

void AgentPromptWindowPresenter::hide() {
    logger_.log("Prompt presenter has no active prompts and will hide the decision window.");
    if (window_) {
        if (window_->isVisible()) logger_.log("Hiding the Quillfort prompt window after the prompt queue drained.");
        window_->hide();
        rootView_->refresh();
    }
    if (coordinator_->promptWindowVisible().value()) coordinator_->promptWindowVisible().set(false);
}

}  // namespace quillfort::ui
