#include "QuillfortAgent/ui/AgentUi.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <unistd.h>

#include <QAction>
#include <QApplication>
#include <QLibraryInfo>
#include <QMenu>
#include <QSocketNotifier>
#include <QSystemTrayIcon>
#include <QWindow>

#include "QuillfortAgent/app/DisplayProbe.hpp"
#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/ui/AgentPromptWindowPresenter.hpp"
#include "QuillfortAgent/host/AgentFlowMonitor.hpp"
#include "QuillfortAgent/host/AgentRuleBook.hpp"
#include "QuillfortAgent/ui/AgentStatusWindow.hpp"
#include "QuillfortAgent/ui/PromptNotifier.hpp"
#include "QuillfortAgent/ui/QFPalette.hpp"
#include "QuillfortAgent/ui/QFSymbols.hpp"
#include "QuillfortAgent/ui/QtMainThreadExecutor.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort::ui {

namespace {

int signalPipe[2] = {-1, -1};

// Only async-signal-safe work here: the event loop picks the byte up.
void onTerminationSignal(int) {
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(signalPipe[1], &byte, 1);
}

bool nonEmpty(const ProcessInfo& processInfo, const char* name) {
    const auto value = processInfo.environmentValue(name);
    return value && !value->empty();
}

bool waylandPluginInstalled() {
    const auto plugins = QLibraryInfo::path(QLibraryInfo::PluginsPath).toStdString();
    return std::filesystem::exists(std::filesystem::path(plugins) / "platforms" / "libqwayland-generic.so");
}

// The Qt platform for this session: native Wayland where a compositor answers
// and Qt's Wayland plugin is installed, else X11 where an X server answers
// (XWayland included), else none. Both are tried here, before Qt, so that a
// display that does not answer means the next choice instead of an abort.
std::optional<std::string> choosePlatformName(const ProcessInfo& processInfo) {
    if (DisplayProbe::waylandAnswers(processInfo) && waylandPluginInstalled()) return "wayland";
    if (DisplayProbe::xDisplayAnswers(processInfo)) return "xcb";
    return std::nullopt;
}

void choosePlatform(const ProcessInfo& processInfo) {
    if (nonEmpty(processInfo, "QT_QPA_PLATFORM")) return;  // the user's choice stands
    if (auto platform = choosePlatformName(processInfo)) qputenv("QT_QPA_PLATFORM", QByteArray::fromStdString(*platform));
}

std::optional<bool> forcedAppearance(const ProcessInfo& processInfo) {
    const auto value = processInfo.environmentValue("QUILLFORT_AGENT_APPEARANCE");
    if (value == "dark") return true;
    if (value == "light") return false;
    return std::nullopt;
}

}  // namespace

std::optional<std::string> displayProblem(const ProcessInfo& processInfo) {
    if (nonEmpty(processInfo, "QT_QPA_PLATFORM")) return std::nullopt;  // the user's choice stands
    if (choosePlatformName(processInfo)) return std::nullopt;
    const bool wayland = nonEmpty(processInfo, "WAYLAND_DISPLAY");
    const bool x = nonEmpty(processInfo, "DISPLAY");
    if (!wayland && !x) return "no display found (DISPLAY and WAYLAND_DISPLAY are unset)";
    std::string problem;
    if (wayland)
        problem = DisplayProbe::waylandAnswers(processInfo)
                      ? "Qt's Wayland platform (qt6-wayland) is not installed"
                      : "no Wayland compositor answers on " + *processInfo.environmentValue("WAYLAND_DISPLAY");
    if (x) problem += (problem.empty() ? "" : " and ") + std::string("cannot open the X display ") +
                      *processInfo.environmentValue("DISPLAY");
    return problem;
}

struct AgentUi::Impl {
    Impl(int& argc, char** argv, const ProcessInfo& processInfo, QuillfortFeatureFlags flags)
        : featureFlags(std::move(flags)),
          signalPipeOpen(openSignalPipe()),
          application((choosePlatform(processInfo), argc), argv) {
        QApplication::setApplicationName("Quillfort Agent");
        QApplication::setDesktopFileName("quillfort-agent");
        QApplication::setQuitOnLastWindowClosed(false);  // closing the status window leaves the agent running
        QApplication::setStyle("Fusion");
        QFPalette::forceAppearance(forcedAppearance(processInfo));
        QFPalette::install(application);
        mainThread = std::make_shared<QtMainThreadExecutor>();
        if (signalPipeOpen) watchSignalPipe();
    }

    // Before the application object exists, so that a signal during its
    // (sometimes slow) start still ends the agent with status 0.
    bool openSignalPipe() {
        if (::pipe(signalPipe) != 0) {
            logger.error("Could not watch for SIGINT and SIGTERM: %{public}s", std::strerror(errno));
            return false;
        }
        struct sigaction action {};
        action.sa_handler = onTerminationSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        ::sigaction(SIGINT, &action, nullptr);
        ::sigaction(SIGTERM, &action, nullptr);
        return true;
    }

    void watchSignalPipe() {
        signalNotifier = std::make_unique<QSocketNotifier>(signalPipe[0], QSocketNotifier::Read);
        QObject::connect(signalNotifier.get(), &QSocketNotifier::activated, [] {
            char byte = 0;
            [[maybe_unused]] const auto read = ::read(signalPipe[0], &byte, 1);
            // exit(), not quit(): quit() first asks every window to close, and
            // the decision window refuses, which would cancel the quit.
            QCoreApplication::exit(0);
        });
    }

    void showStatusWindow() {
        if (!statusWindow) {
            auto flows = AgentFlowMonitor::make(fileSystem, AgentFlowMonitor::standardLocation(*fileSystem), mainThread);
            statusWindow = std::make_unique<AgentStatusWindow>(featureFlags, coordinator, rules, std::move(flows));
            // The status window's controls take the agent's blue tint.
            QPalette palette = statusWindow->palette();
            palette.setColor(QPalette::Highlight, QColor::fromRgbF(0.0f, 0.39f, 0.8f));
            statusWindow->setPalette(palette);
            statusWindow->resize(900, 640);
        }
        // A window the desktop unmapped or minimised still counts as visible to
        // Qt, and show() alone would not map it again.
        const QWindow* handle = statusWindow->windowHandle();
        if (statusWindow->isVisible() && handle && !handle->isExposed()) statusWindow->hide();
        statusWindow->showNormal();
        statusWindow->raise();
        statusWindow->activateWindow();
    }

    // Another application has the keyboard: the decision window would take it
    // from whatever the user is typing there, or (on Wayland) not come forward.
    static bool userWorksElsewhere() { return QGuiApplication::applicationState() != Qt::ApplicationActive; }

    void startNotifier() {
        notifier = std::make_unique<PromptNotifier>(coordinator, makeDesktopNotificationSink(), userWorksElsewhere,
                                                    [this] { presenter->bringForward(); });
    }

    void updateTrayIcon() {
        const std::string symbol = coordinator->menuBarSymbol();
        if (symbol == traySymbol) return;
        traySymbol = symbol;
        tray->setIcon(QFSymbols::icon(symbol, QFPalette::color(QFColorName::qfAccent)));
    }

    void startTray() {
        if (!QSystemTrayIcon::isSystemTrayAvailable()) {
            logger.log("No system tray on this desktop; opening the status window instead.");
            showStatusWindow();
            return;
        }
        tray = std::make_unique<QSystemTrayIcon>();
        tray->setToolTip("Quillfort Agent");
        trayMenu = std::make_unique<QMenu>();
        trayMenu->setTitle("Quillfort Agent");
        QObject::connect(trayMenu->addAction("Open Quillfort Agent"), &QAction::triggered,
                         [this] { showStatusWindow(); });
        tray->setContextMenu(trayMenu.get());
        QObject::connect(tray.get(), &QSystemTrayIcon::activated, [this](QSystemTrayIcon::ActivationReason reason) {
            if (reason != QSystemTrayIcon::Context) showStatusWindow();
        });
        updateTrayIcon();
        traySubscription = coordinator->activePrompts().subscribe([this](const auto&) { updateTrayIcon(); });
        tray->show();
    }

    QuillfortFeatureFlags featureFlags;
    Logger logger = QuillfortLogger::logger(QuillfortLogCategory::agent);
    bool signalPipeOpen;
    QApplication application;
    std::shared_ptr<QtMainThreadExecutor> mainThread;
    std::unique_ptr<QSocketNotifier> signalNotifier;
    std::shared_ptr<AgentPromptCoordinator> coordinator;
    std::shared_ptr<AgentRuleBook> rules;
    std::unique_ptr<AgentPromptWindowPresenter> presenter;
    std::shared_ptr<FileSystem> fileSystem = defaultFileSystem();
    std::unique_ptr<AgentStatusWindow> statusWindow;
    std::unique_ptr<PromptNotifier> notifier;
    std::unique_ptr<QMenu> trayMenu;
    std::unique_ptr<QSystemTrayIcon> tray;
    std::string traySymbol;
    Subscription traySubscription;
};

AgentUi::AgentUi(int& argc, char** argv, const ProcessInfo& processInfo, QuillfortFeatureFlags featureFlags)
    : impl_(std::make_unique<Impl>(argc, argv, processInfo, std::move(featureFlags))) {}

AgentUi::~AgentUi() = default;

std::shared_ptr<MainThreadExecutor> AgentUi::mainThread() const {
    return impl_->mainThread;
}

void AgentUi::buildPresenter(std::shared_ptr<AgentPromptCoordinator> coordinator) {
    impl_->coordinator = coordinator;
    impl_->presenter = std::make_unique<AgentPromptWindowPresenter>(std::move(coordinator));
}

void AgentUi::start(std::shared_ptr<AgentRuleBook> rules) {
    impl_->rules = std::move(rules);
    impl_->presenter->start();
    impl_->startNotifier();
    impl_->startTray();
}

void AgentUi::showStatusWindow() {
    impl_->showStatusWindow();
}

int AgentUi::run() {
    QApplication::exec();
    return 0;
}

}  // namespace quillfort::ui
