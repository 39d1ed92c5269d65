// What the decision window shows while nothing is queued: a pulsing shield,
// the bridge the agent listens on, and the latest answers.
#pragma once

#include <string>
#include <vector>

#include <QWidget>

#include "QuillfortAgent/coordinator/AgentPromptSession.hpp"

class QVBoxLayout;

namespace quillfort::ui {

class QFText;

class IdleView : public QWidget {
public:
    explicit IdleView(QWidget* parent = nullptr);
    void bind(const std::string& listenerStatus, const std::string& endpointPath,
              const std::vector<AgentResolvedPrompt>& recentResponses);

private:
    QFText* bridgeValue_;
    QFText* manifestValue_;
    QWidget* recentBlock_;
    QVBoxLayout* recentRows_;
    std::vector<AgentResolvedPrompt> shownRecent_;
};

// One line per answered prompt: title, detail and time.
[[nodiscard]] QWidget* makeResolvedRow(const AgentResolvedPrompt& record, QWidget* parent);

}  // namespace quillfort::ui
