#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "QuillfortAgent/automation/AgentPreviewPrompts.hpp"
#include "QuillfortAgent/coordinator/CachedRuleSnapshotReader.hpp"
#include "QuillfortAgent/coordinator/ResolvedAtFormatter.hpp"
#include "QuillfortAgent/coordinator/StoredPromptPreference.hpp"
#include "contracts/FlowPromptExistingRuleAnalyzer.hpp"
#include "contracts/FlowPromptRuleBuilder.hpp"
#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort {

namespace {

constexpr std::size_t kRecentResponseLimit = 6;

// The host a log line names for a prompt.
std::string logHost(const FlowPromptRequest& request) {
    const auto& context = request.context;
    if (context.matchedHostname) return *context.matchedHostname;
    if (context.flow.hostText) return *context.flow.hostText;
    return "<unknown>";
}

// The host a recent-answers record names.
std::string recordHost(const FlowPromptRequest& request) {
    const auto& context = request.context;
    if (context.matchedHostname) return *context.matchedHostname;
    if (context.flow.hostText) return *context.flow.hostText;
    return "unknown-host";
}

std::optional<std::size_t> indexOf(const std::vector<AgentPromptSession>& sessions, const Uuid& id) {
    const auto found =
        std::find_if(sessions.begin(), sessions.end(), [&](const AgentPromptSession& s) { return s.id() == id; });
    if (found == sessions.end()) return std::nullopt;
    return static_cast<std::size_t>(found - sessions.begin());
}

}  // namespace

struct AgentPromptCoordinator::Impl {
    explicit Impl(Dependencies d) : deps(std::move(d)) {
        if (!deps.fileSystem) deps.fileSystem = defaultFileSystem();
        if (!deps.userDefaults) deps.userDefaults = standardUserDefaults();
        if (!deps.rules) deps.rules = CachedRuleSnapshotReader::inSharedContainer(deps.fileSystem);
        if (!deps.clock) deps.clock = systemClock();
        if (!deps.uuids) deps.uuids = randomUuidSource();
        if (!deps.formatTime) deps.formatTime = ResolvedAtFormatter::userLocaleFormatter();

        automationDirective = FlowPromptAutomationDirective::fromEnvironment(deps.processInfo.environment);
        automationFocus = FlowPromptAutomationFocus::fromEnvironment(deps.processInfo.environment);

        const auto manifest = QuillfortPromptEndpointStore::listenerEndpointURL(*deps.fileSystem, std::nullopt);
        endpointPath.set(manifest ? manifest->string() : std::string("<nil>"));
    }

    Dependencies deps;
    Logger logger = QuillfortLogger::logger(QuillfortLogCategory::agent);
    std::optional<FlowPromptAutomationDirective> automationDirective;
    std::optional<FlowPromptAutomationFocus> automationFocus;
    std::map<Uuid, ReplyCallback> pendingReplies;

    Observable<std::vector<AgentPromptSession>> activePrompts;
    Observable<std::vector<AgentResolvedPrompt>> recentResponses;
    Observable<std::string> listenerStatus{"Starting prompt bridge..."};
    Observable<std::string> endpointPath;
    Observable<bool> promptWindowVisible{false};

    // The waiting callback for `id`, taken out of the map.
    std::optional<ReplyCallback> takeReply(const Uuid& id) {
        const auto found = pendingReplies.find(id);
        if (found == pendingReplies.end()) return std::nullopt;
        ReplyCallback reply = std::move(found->second);
        pendingReplies.erase(found);
        return reply;
    }

    AgentPromptSession makeSession(const FlowPromptRequest& request) {
        return makeSession(request, StoredPromptPreference::load(*deps.userDefaults), *deps.rules->currentRules());
    }

    // With the preference and rules already read, so a batch reads them once.
    AgentPromptSession makeSession(const FlowPromptRequest& request, const std::optional<StoredPromptPreference>& preference,
                                   const std::vector<Rule>& rules) {
        const FlowPromptRuleSelection defaults = FlowPromptRuleBuilder::defaultSelection(request);

        AgentPromptSession session;
        session.request = request;
        session.receivedAt = dateFrom(deps.clock->now());
        session.signerChangeCandidate = FlowPromptExistingRuleAnalyzer::signerChangeCandidate(request, rules);
        session.ruleSelection = preference ? combinedRuleSelection(defaults, *preference, request) : defaults;
        if (const auto& candidate = session.signerChangeCandidate) {
            const auto found = std::find_if(rules.begin(), rules.end(),
                                            [&](const Rule& rule) { return rule.id == candidate->existingRuleID; });
            if (found != rules.end()) session.signerReuseTemplateRule = *found;
        }
        if (preference) {
            session.rememberedPreset = preference->preset;
            session.selectedPreset = preference->preset;
        }
        session.reuseExistingSignerRule = session.signerChangeCandidate.has_value();
        return session;
    }

    void enqueue(AgentPromptSession session) {
        if (automationFocus && automationFocus->matches(session.request)) {
            const std::string id = session.id().uppercaseString();
            const std::string host = logHost(session.request);
            activePrompts.mutate([&](auto& sessions) { sessions.insert(sessions.begin(), std::move(session)); });
            logger.log("Prioritized automation-focused prompt %{public}s for %{public}s at the front of the queue.", id,
                       host);
            return;
        }
        activePrompts.mutate([&](auto& sessions) { sessions.push_back(std::move(session)); });
    }

    // Changes the selected preset of the first session for `id` in the queue;
    // false when there is none.
    bool setPreset(const Uuid& id, AgentPromptDecisionPreset preset) {
        const auto index = indexOf(activePrompts.value(), id);
        if (!index) return false;
        activePrompts.mutate([&](auto& sessions) { sessions[*index].selectedPreset = preset; });
        return true;
    }

    // Takes the first session for `id` and its callback out of the queue; the
    // session stays queued when no callback waits for it.
    std::optional<std::pair<AgentPromptSession, ReplyCallback>> takeSession(const Uuid& id) {
        const auto index = indexOf(activePrompts.value(), id);
        if (!index) return std::nullopt;
        auto reply = takeReply(id);
        if (!reply) return std::nullopt;
        AgentPromptSession session = activePrompts.value()[*index];
        activePrompts.mutate(
            [&](auto& sessions) { sessions.erase(sessions.begin() + static_cast<std::ptrdiff_t>(*index)); });
        return std::pair{std::move(session), std::move(*reply)};
    }

    void recordResolution(const FlowPromptRequest& request, const FlowPromptResponse& response, bool automated) {
        const std::string host = recordHost(request);
        AgentResolvedPrompt record{
            .id = request.id,
            .title = (automated ? "Auto-resolved " : "Resolved ") + host,
            .detail = fmt::format("{} {} for {}", rawValue(response.action), rawValue(response.scope), host),
            .resolvedAt = deps.formatTime(deps.clock->now()),
        };
        recentResponses.mutate([&](auto& records) {
            records.insert(records.begin(), std::move(record));
            if (records.size() > kRecentResponseLimit) records.resize(kRecentResponseLimit);
        });
    }

    // The sessions, other than `answered`, that `rule` decides and whose callback
    // still waits, in queue order. Each queued prompt is looked at once.
    [[nodiscard]] std::vector<std::size_t> decidedSessions(const Rule& rule, const Uuid& answered) const {
        std::vector<std::size_t> decided;
        const auto& sessions = activePrompts.value();
        for (std::size_t i = 0; i < sessions.size(); ++i) {
            const auto& session = sessions[i];
            if (session.id() == answered || !pendingReplies.contains(session.id())) continue;
            if (FlowPromptExistingRuleAnalyzer::ruleDecides(rule, session.request)) decided.push_back(i);
        }
        return decided;
    }

    // A lasting answer makes a rule; every other queued prompt that rule decides
    // gets the same answer and the same rule (same id, so the snapshot gains it
    // once), through its own callback. The queue changes once for all of them.
    void resolveDecidedBy(const FlowPromptResponse& response, bool automated) {
        if (response.scope == RuleScope::temporary || !response.suggestedRule) return;
        const auto decided = decidedSessions(*response.suggestedRule, response.promptID);
        if (decided.empty()) return;

        std::vector<AgentPromptSession> answered;
        answered.reserve(decided.size());
        activePrompts.mutate([&](auto& sessions) {
            std::vector<AgentPromptSession> kept;
            kept.reserve(sessions.size() - decided.size());
            auto next = decided.begin();
            for (std::size_t i = 0; i < sessions.size(); ++i) {
                if (next != decided.end() && *next == i) {
                    answered.push_back(std::move(sessions[i]));
                    ++next;
                } else {
                    kept.push_back(std::move(sessions[i]));
                }
            }
            sessions = std::move(kept);
        });

        const auto preset = AgentPromptDecisionPresets::preset(response.action, response.scope);
        for (const auto& session : answered) {
            auto reply = takeReply(session.id());
            FlowPromptResponse shared = response;
            shared.promptID = session.id();
            if (reply && *reply) (*reply)(shared, std::nullopt);
            recordResolution(session.request, shared, automated);
            logger.log("Resolved prompt %{public}s as %{public}s.", session.id().uppercaseString(), rawValue(preset));
        }
        logger.log("The rule of prompt %{public}s also answered %{public}s other pending prompts.",
                   response.promptID.uppercaseString(), answered.size());
    }

    void enqueuePreviewPrompt(const FlowPromptRequest& request, const std::optional<StoredPromptPreference>& preference,
                              const std::vector<Rule>& rules) {
        if (pendingReplies.contains(request.id)) return;
        // Answering a preview prompt takes the normal path; the answer goes nowhere.
        pendingReplies.emplace(request.id, [](std::optional<FlowPromptResponse>, std::optional<std::string>) {});
        enqueue(makeSession(request, preference, rules));
        logger.log("Queued preview prompt %{public}s for %{public}s.", request.id.uppercaseString(), logHost(request));
    }
};

AgentPromptCoordinator::AgentPromptCoordinator(Dependencies dependencies)
    : impl_(std::make_unique<Impl>(std::move(dependencies))) {}

AgentPromptCoordinator::~AgentPromptCoordinator() = default;

Observable<std::vector<AgentPromptSession>>& AgentPromptCoordinator::activePrompts() noexcept {
    return impl_->activePrompts;
}
Observable<std::vector<AgentResolvedPrompt>>& AgentPromptCoordinator::recentResponses() noexcept {
    return impl_->recentResponses;
}
Observable<std::string>& AgentPromptCoordinator::listenerStatus() noexcept {
    return impl_->listenerStatus;
}
Observable<std::string>& AgentPromptCoordinator::endpointPath() noexcept {
    return impl_->endpointPath;
}
Observable<bool>& AgentPromptCoordinator::promptWindowVisible() noexcept {
    return impl_->promptWindowVisible;
}

void AgentPromptCoordinator::receivePrompt(FlowPromptRequest request, ReplyCallback reply) {
    auto& impl = *impl_;
    if (impl.automationDirective && impl.automationDirective->matches(request)) {
        const auto preset = impl.automationDirective->preset;
        const FlowPromptResponse response = ::quillfort::makeResponse(preset, request, *impl.deps.uuids);
        if (reply) reply(response, std::nullopt);
        impl.recordResolution(request, response, true);
        impl.logger.log("Auto-resolved prompt %{public}s using preset %{public}s.", request.id.uppercaseString(),
                        rawValue(preset));
        impl.resolveDecidedBy(response, true);
        return;
    }

    // A callback already held for the same id is replaced and never called.
    impl.pendingReplies.insert_or_assign(request.id, std::move(reply));
    const std::string id = request.id.uppercaseString();
    const std::string host = logHost(request);
    impl.enqueue(impl.makeSession(request));
    impl.logger.log("Queued prompt %{public}s for %{public}s.", id, host);
}

void AgentPromptCoordinator::receivePromptFirst(FlowPromptRequest request, AgentPromptDecisionPreset preset,
                                                ReplyCallback reply) {
    auto& impl = *impl_;
    impl.pendingReplies.insert_or_assign(request.id, std::move(reply));
    AgentPromptSession session = impl.makeSession(request);
    session.selectedPreset = preset;
    const std::string id = request.id.uppercaseString();
    const std::string host = logHost(request);
    impl.activePrompts.mutate([&](auto& sessions) { sessions.insert(sessions.begin(), std::move(session)); });
    impl.logger.log("Queued rule choice %{public}s for %{public}s at the front of the queue.", id, host);
}

void AgentPromptCoordinator::resolvePrompt(const Uuid& id) {
    auto& impl = *impl_;
    auto taken = impl.takeSession(id);
    if (!taken) return;
    auto& [session, reply] = *taken;

    if (auto saved = StoredPromptPreference::from(session).save(*impl.deps.userDefaults); !saved) {
        impl.logger.error("Failed to store the prompt preference: %{public}s", saved.error());
    }
    const auto suggested = session.suggestedRule(*impl.deps.uuids);
    const FlowPromptResponse response =
        makeResponse(session.request, session.selectedPreset, session.ruleSelection, suggested, *impl.deps.uuids);
    if (reply) reply(response, std::nullopt);
    impl.recordResolution(session.request, response, false);
    impl.logger.log("Resolved prompt %{public}s as %{public}s.", id.uppercaseString(),
                    rawValue(session.selectedPreset));
    impl.resolveDecidedBy(response, false);
}

void AgentPromptCoordinator::resolvePrompt(const Uuid& id, AgentPromptDecisionPreset preset) {
    if (!impl_->setPreset(id, preset)) return;
    resolvePrompt(id);
}

void AgentPromptCoordinator::cancelPrompt(const Uuid& id) {
    auto& impl = *impl_;
    if (!impl.setPreset(id, AgentPromptDecisionPreset::blockOnce)) return;
    auto taken = impl.takeSession(id);
    if (!taken) return;
    auto& [session, reply] = *taken;

    const auto suggested = session.suggestedRule(*impl.deps.uuids);
    const FlowPromptResponse response = makeResponse(session.request, AgentPromptDecisionPreset::blockOnce,
                                                     session.ruleSelection, suggested, *impl.deps.uuids);
    if (reply) reply(response, std::nullopt);
    impl.recordResolution(session.request, response, false);
}

void AgentPromptCoordinator::cancelAllPrompts() {
    auto& impl = *impl_;
    if (impl.activePrompts.value().empty()) return;
    const std::vector<AgentPromptSession> cancelled = impl.activePrompts.value();
    impl.activePrompts.set({});

    for (const auto& session : cancelled) {
        auto reply = impl.takeReply(session.id());
        if (!reply) continue;  // a duplicate whose callback was already used
        const FlowPromptResponse response = makeResponse(session.request, AgentPromptDecisionPreset::blockOnce,
                                                         session.ruleSelection, std::nullopt, *impl.deps.uuids);
        if (*reply) (*reply)(response, std::nullopt);
        impl.recordResolution(session.request, response, false);
    }
    impl.logger.log("Cancelled all queued prompts without persisting new rules.");
}

void AgentPromptCoordinator::recordAutomatedResolution(const FlowPromptRequest& request,
                                                       const FlowPromptResponse& response) {
    impl_->recordResolution(request, response, true);
}

void AgentPromptCoordinator::resolvePromptsDecidedBy(const FlowPromptResponse& response) {
    impl_->resolveDecidedBy(response, true);
}

std::size_t AgentPromptCoordinator::alsoAnsweredCount(const Uuid& id) const {
    const auto& impl = *impl_;
    const auto& sessions = impl.activePrompts.value();
    const auto index = indexOf(sessions, id);
    if (!index) return 0;
    const auto& session = sessions[*index];
    if (AgentPromptDecisionPresets::isOnce(session.selectedPreset)) return 0;
    // The rule's id plays no part in which flows it decides, so it need not
    // come from (and use up) the coordinator's own identifiers.
    const auto rule = session.suggestedRule();
    return rule ? impl.decidedSessions(*rule, id).size() : 0;
}

void AgentPromptCoordinator::updateListenerStatus(std::string text) {
    impl_->listenerStatus.set(std::move(text));
}

void AgentPromptCoordinator::setSelectedPreset(const Uuid& id, AgentPromptDecisionPreset preset) {
    impl_->setPreset(id, preset);
}

void AgentPromptCoordinator::setRuleSelection(const Uuid& id, FlowPromptRuleSelection selection) {
    auto& prompts = impl_->activePrompts;
    const auto index = indexOf(prompts.value(), id);
    if (!index) return;
    prompts.mutate([&](auto& sessions) { sessions[*index].ruleSelection = std::move(selection); });
}

void AgentPromptCoordinator::setReuseExistingSignerRule(const Uuid& id, bool reuse) {
    auto& prompts = impl_->activePrompts;
    const auto index = indexOf(prompts.value(), id);
    if (!index) return;
    prompts.mutate([&](auto& sessions) { sessions[*index].reuseExistingSignerRule = reuse; });
}

FlowPromptResponse AgentPromptCoordinator::makeResponse(const FlowPromptRequest& request,
                                                        AgentPromptDecisionPreset preset,
                                                        const FlowPromptRuleSelection& ruleSelection,
                                                        const std::optional<Rule>& suggestedRule, UuidSource& ids) {
    FlowPromptResponse response;
    response.promptID = request.id;
    response.action = AgentPromptDecisionPresets::action(preset);
    response.scope = AgentPromptDecisionPresets::scope(preset);
    response.persist = AgentPromptDecisionPresets::persist(preset);
    if (!AgentPromptDecisionPresets::isOnce(preset)) response.ruleSelection = ruleSelection;
    response.suggestedRule = suggestedRule ? suggestedRule
                                           : FlowPromptRuleBuilder::buildSuggestedRule(
                                                 request, response.action, response.scope, ruleSelection, ids);
    return response;
}

std::string AgentPromptCoordinator::menuBarSymbol() const {
    return impl_->activePrompts.value().empty() ? "shield" : "shield.lefthalf.filled";
}

std::string AgentPromptCoordinator::statusSummary() const {
    const std::size_t count = impl_->activePrompts.value().size();
    if (count == 0) return "No active prompts";
    return fmt::format("{} prompt{} awaiting a decision", count, count == 1 ? "" : "s");
}

void AgentPromptCoordinator::seedPreviewPromptIfRequested(const ProcessInfo& processInfo) {
    auto& impl = *impl_;
    if (!AgentPreviewPrompts::previewPromptRequested(processInfo, *impl.deps.userDefaults)) return;
    // No upper bound: every prompt costs the same, and what is shared by all
    // (the request, the preference, the rules) is made and read once.
    const std::int64_t count = previewPromptQueueCount(processInfo);
    if (count <= 0) return;
    FlowPromptRequest request = AgentPreviewPrompts::makePreviewPromptRequest(
        processInfo, *impl.deps.userDefaults, impl.deps.clock->now(), *impl.deps.uuids);
    const auto preference = StoredPromptPreference::load(*impl.deps.userDefaults);
    const auto rules = impl.deps.rules->currentRules();
    for (std::int64_t i = 0; i < count; ++i) {
        request.id = impl.deps.uuids->next();
        impl.enqueuePreviewPrompt(request, preference, *rules);
    }
}

std::int64_t AgentPromptCoordinator::previewPromptQueueCount(const ProcessInfo& processInfo) const {
    return AgentPreviewPrompts::previewPromptQueueCount(processInfo, *impl_->deps.userDefaults);
}

}  // namespace quillfort
