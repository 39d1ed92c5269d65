// A coordinator with fixed clock, ids and rules, the presenter on top of it,
// and helpers to find widgets by object name, for the widget tests.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <QAbstractButton>
#include <QApplication>
#include <QTest>

#include <gtest/gtest.h>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/ui/AgentPromptWindowPresenter.hpp"
#include "QuillfortAgent/ui/AgentPromptWindowView.hpp"
#include "QuillfortAgent/ui/TrafficPromptView.hpp"
#include "tests/QuillfortAgent/TestCoordinator.hpp"

namespace quillfort::ui::testing {

inline QApplication& application() {
    static int argc = 1;
    static char name[] = "agent_ui_tests";
    static char* argv[] = {name, nullptr};
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    // Never destroyed: Qt Test's input devices are torn down at exit and must
    // not outlive the application they belong to.
    static auto* app = new QApplication(argc, argv);
    return *app;
}

struct UiHarness {
    UiHarness() {
        application();
        coordinator = quillfort::testing::makeTestCoordinator(rules, fileSystem);
        presenter = std::make_unique<AgentPromptWindowPresenter>(coordinator);
        presenter->start();
        presenter->rootView()->promptView().setInputGuardInterval(std::chrono::milliseconds(0));
    }

    void receive(const std::string& host, std::uint64_t n) {
        FlowPromptRequest request{
            .id = quillfort::testing::sampleUuid(n), .context = quillfort::testing::sampleFlowContext(), .suggestedRule = {}};
        request.context.matchedHostname = host;
        coordinator->receivePrompt(request, [this, n](std::optional<FlowPromptResponse> response, auto) {
            if (response) replies.emplace_back(n, *response);
        });
        settle();
    }

    static void settle() {
        for (int i = 0; i < 3; ++i) QApplication::processEvents();
    }

    template <class T = QWidget>
    T* find(const char* objectName) const {
        auto* widget = presenter->window()->findChild<T*>(objectName);
        EXPECT_NE(widget, nullptr) << objectName;
        return widget;
    }

    void click(QAbstractButton* button) {
        ASSERT_NE(button, nullptr);
        QTest::mouseClick(button, Qt::LeftButton);
        settle();
    }

    std::shared_ptr<quillfort::testing::FakeFileSystem> fileSystem = std::make_shared<quillfort::testing::FakeFileSystem>();
    std::shared_ptr<quillfort::testing::FakeRules> rules = std::make_shared<quillfort::testing::FakeRules>();
    std::shared_ptr<AgentPromptCoordinator> coordinator;
    std::unique_ptr<AgentPromptWindowPresenter> presenter;
    std::vector<std::pair<std::uint64_t, FlowPromptResponse>> replies;
};

}  // namespace quillfort::ui::testing
