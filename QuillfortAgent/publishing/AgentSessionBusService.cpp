#include "QuillfortAgent/publishing/AgentSessionBusService.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <expected>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "QuillfortAgent/coordinator/TrafficPromptViewModel.hpp"
#include "contracts/RuleConditionText.hpp"
#include "contracts/QuillfortAgentBusInterface.hpp"
#include "model/Json.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort {

namespace bus = QuillfortAgentBusInterface;

namespace {

struct CallFailure {
    const char* name;
    std::string message;
};
// The text a method returns (empty for methods without a result), or why it failed.
using CallResult = std::expected<std::string, CallFailure>;

std::string errnoText(int negativeErrno) { return std::strerror(-negativeErrno); }

std::unexpected<CallFailure> invalid(std::string message) {
    return std::unexpected(CallFailure{bus::invalidArgsError, std::move(message)});
}

// The texts of the decision window, exactly as its view model words them; the
// tools show these and never derive their own.
json::object textsJson(const AgentPromptSession& session) {
    const TrafficPromptTexts texts = TrafficPromptViewModel::derivedTexts(session);
    json::object out;
    out["host"] = texts.host;
    out["port"] = texts.port;
    out["proto"] = texts.proto;
    out["headerTitle"] = texts.headerTitle;
    out["directionTitle"] = texts.directionTitle;
    out["processTitle"] = texts.processTitle;
    out["processPath"] = texts.processPath;
    out["signerTitle"] = texts.signerTitle;
    out["tagsTitle"] = texts.tagsTitle;
    out["ancestorSummary"] = texts.ancestorSummary;
    if (texts.rememberedTitle) out["rememberedTitle"] = *texts.rememberedTitle;
    if (texts.signerChangeSummary) out["signerChangeSummary"] = *texts.signerChangeSummary;
    out["previewText"] = texts.previewText;
    json::array options;
    for (const auto& option : texts.hostScopeOptions) {
        options.push_back(json::object{{"id", option.id}, {"title", option.title}});
    }
    out["hostScopeOptions"] = std::move(options);
    out["selectedHostScopeID"] = texts.selectedHostScopeID;
    out["durationTitle"] = texts.durationTitle;
    out["allowTitle"] = texts.allowTitle;
    out["blockTitle"] = texts.blockTitle;
    out["signerChoiceEnabled"] = texts.signerChoiceEnabled;
    return out;
}

}  // namespace

struct AgentSessionBusService::Core : std::enable_shared_from_this<Core> {
    std::shared_ptr<AgentPromptCoordinator> coordinator;
    std::shared_ptr<MainThreadExecutor> mainThread;
    Extras extras;
    Logger logger{QuillfortLogCategory::agent};

    // The bus side. Touched by the bus thread while it runs, by the owner
    // before it starts and after it ends; never by a main-thread task.
    sd_bus* connection = nullptr;
    sd_bus_slot* slot = nullptr;
    int wakeFd = -1;
    std::thread thread;
    std::atomic<bool> stopping{false};
    // Calls waiting for the main thread's answer, by call number. sd-bus is not
    // thread-safe, so the messages stay here and only their numbers travel.
    std::map<std::uint64_t, sd_bus_message*> pendingCalls;
    std::uint64_t nextCall = 0;

    std::mutex lock;
    std::vector<std::function<void(sd_bus*)>> busTasks;  // guarded by lock

    // One signal waits at a time and carries the newest count.
    std::atomic<bool> signalPending{false};
    std::atomic<std::uint32_t> latestCount{0};
    Subscription queueObserver;  // main thread

    ~Core() {
        queueObserver.reset();
        if (thread.joinable()) {
            stopping = true;
            wake();
            thread.join();
        }
        runBusTasks(nullptr);  // answers that can no longer be sent release their calls
        for (auto& [number, message] : pendingCalls) sd_bus_message_unref(message);
        if (slot != nullptr) sd_bus_slot_unref(slot);
        if (connection != nullptr) sd_bus_flush_close_unref(connection);
        if (wakeFd >= 0) ::close(wakeFd);
    }

    void wake() const {
        const std::uint64_t one = 1;
        (void)!::write(wakeFd, &one, sizeof one);
    }

    // `task` runs on the bus thread with the connection, or with none when the
    // service ends before it could run.
    void postToBus(std::function<void(sd_bus*)> task) {
        {
            std::lock_guard guard(lock);
            busTasks.push_back(std::move(task));
        }
        wake();
    }

    void runBusTasks(sd_bus* busConnection) {
        std::vector<std::function<void(sd_bus*)>> tasks;
        {
            std::lock_guard guard(lock);
            tasks.swap(busTasks);
        }
        for (auto& task : tasks) task(busConnection);
    }

    // Milliseconds until sd-bus wants to run again (a call's time-out), or -1.
    int busTimeoutMs() const {
        std::uint64_t until = 0;
        if (sd_bus_get_timeout(connection, &until) < 0 || until == UINT64_MAX) return -1;
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const std::uint64_t nowUs =
            static_cast<std::uint64_t>(now.tv_sec) * 1'000'000u + static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
        return until <= nowUs ? 0 : static_cast<int>((until - nowUs + 999) / 1000);
    }

    void runLoop() {
        while (!stopping) {
            runBusTasks(connection);
            const int processed = sd_bus_process(connection, nullptr);
            if (processed < 0) {
                logger.error("The session bus connection ended: %{public}s", errnoText(processed));
                return;
            }
            if (processed > 0) continue;

            pollfd fds[2] = {
                {sd_bus_get_fd(connection), static_cast<short>(sd_bus_get_events(connection)), 0},
                {wakeFd, POLLIN, 0},
            };
            if (::poll(fds, 2, busTimeoutMs()) < 0 && errno != EINTR) {
                logger.error("Waiting on the session bus failed: %{public}s", errnoText(-errno));
                return;
            }
            if ((fds[1].revents & POLLIN) != 0) {
                std::uint64_t count = 0;
                (void)!::read(wakeFd, &count, sizeof count);
            }
        }
    }

    // Main thread, on every change of the queue.
    void queueChanged(std::size_t count) {
        latestCount = static_cast<std::uint32_t>(count);
        if (signalPending.exchange(true)) return;  // the waiting signal will carry this count
        postToBus([this](sd_bus* busConnection) {
            signalPending = false;
            if (busConnection == nullptr) return;
            const int r = sd_bus_emit_signal(busConnection, bus::objectPath, bus::interfaceName, bus::queueChanged,
                                             "u", latestCount.load());
            if (r < 0) logger.error("Failed to signal a queue change on the session bus: %{public}s", errnoText(r));
        });
    }

    // ---- Main thread ------------------------------------------------------

    struct Found {
        Uuid id;
        std::size_t index;
    };

    std::expected<Found, CallFailure> queued(const std::string& text) const {
        const auto id = Uuid::parse(text);
        if (!id) return invalid("Not a prompt id: \"" + text + "\"");
        const auto& sessions = coordinator->activePrompts().value();
        for (std::size_t i = 0; i < sessions.size(); ++i) {
            if (sessions[i].id() == *id) return Found{*id, i};
        }
        return std::unexpected(CallFailure{bus::noSuchPromptError, "No queued prompt " + id->uppercaseString()});
    }

    static std::expected<AgentPromptDecisionPreset, CallFailure> preset(const std::string& text) {
        if (auto value = fromRawValue<AgentPromptDecisionPreset>(text)) return *value;
        return invalid("Not a preset: \"" + text +
                       "\" (allowOnce, allowSession, allowPermanent, blockOnce, blockSession, blockPermanent)");
    }

    // One prompt with everything its window shows. `withAlsoAnswers` adds the
    // count of other prompts its answer would settle, a pass over the queue.
    json::object entry(const AgentPromptSession& session, bool withAlsoAnswers) const {
        json::object out;
        out["id"] = session.id().uppercaseString();
        out["request"] = toJson(session.request);
        out["receivedAt"] = iso8601String(session.receivedAt);
        out["selectedPreset"] = rawValue(session.selectedPreset);
        if (session.rememberedPreset) out["rememberedPreset"] = rawValue(*session.rememberedPreset);
        out["ruleSelection"] = toJson(session.ruleSelection);
        out["reuseExistingSignerRule"] = session.reuseExistingSignerRule;
        json::object texts = textsJson(session);
        if (withAlsoAnswers) {
            const std::size_t alsoAnswers = coordinator->alsoAnsweredCount(session.id());
            out["alsoAnswersCount"] = alsoAnswers;
            if (auto text = TrafficPromptViewModel::alsoAnswersText(alsoAnswers)) texts["alsoAnswersText"] = *text;
        }
        out["texts"] = std::move(texts);
        return out;
    }

    std::string listing() const {
        const auto& sessions = coordinator->activePrompts().value();
        json::array prompts;
        prompts.reserve(sessions.size());
        for (std::size_t i = 0; i < sessions.size(); ++i) prompts.push_back(entry(sessions[i], i == 0));
        json::object out;
        out["prompts"] = std::move(prompts);
        out["queuedCount"] = sessions.size();
        if (auto pill = TrafficPromptViewModel::pendingPillText(sessions.size())) out["pendingPillText"] = *pill;
        out["statusSummary"] = coordinator->statusSummary();
        out["listenerStatus"] = coordinator->listenerStatus().value();
        return serializeCompact(out);
    }

    std::string ruleListing() const {
        const auto& state = extras.rules->state().value();
        json::array rules;
        for (const auto& rule : state.rules) {
            json::object out;
            out["id"] = rule.id.uppercaseString();
            out["name"] = rule.name;
            out["enabled"] = rule.enabled;
            out["action"] = rawValue(rule.action);
            out["scope"] = rawValue(rule.scope);
            out["origin"] = rawValue(rule.origin);
            out["priority"] = rule.priority;
            out["conditions"] = RuleConditionText::conditionsText(rule);
            if (const auto end = state.expiries.find(rule.id); end != state.expiries.end())
                out["expiresAt"] = iso8601String(end->second);
            rules.push_back(std::move(out));
        }
        json::object out;
        out["rules"] = std::move(rules);
        if (state.problem) out["problem"] = *state.problem;
        return serializeCompact(out);
    }

    // The rule methods: answered once the rule queue has done the change.
    std::optional<CallResult> performRule(const std::string& member, const std::vector<std::string>& args,
                                          const std::function<void(CallResult)>& answerLater) {
        if (!extras.rules) return std::unexpected(CallFailure{bus::failedError, "This agent keeps no rules."});
        if (member == bus::listRules) return ruleListing();
        if (args.empty()) return invalid("A rule id is needed");
        auto rule = findRuleByIDPrefix(extras.rules->state().value().rules, args[0]);
        if (!rule) return std::unexpected(CallFailure{bus::noSuchRuleError, rule.error()});
        auto done = [answerLater](std::expected<void, std::string> result) {
            if (result) return answerLater(std::string());
            answerLater(std::unexpected(CallFailure{bus::failedError, result.error()}));
        };
        if (member == bus::enableRule || member == bus::disableRule) {
            extras.rules->setEnabled(rule->id, member == bus::enableRule, done);
        } else if (member == bus::deleteRule) {
            extras.rules->remove(rule->id, done);
        } else {
            const std::string duration = args.size() > 1 ? args[1] : std::string();
            std::optional<std::chrono::seconds> after;
            if (duration != "never") {
                after = RuleExpiryDuration::parse(duration);
                if (!after) return invalid("Not a duration: \"" + duration + "\" (90s, 15m, 2h, 1d or never)");
            }
            extras.rules->expireAfter(rule->id, after, done);
        }
        return std::nullopt;
    }

    // The result, or nothing when `answerLater` will be called with it.
    std::optional<CallResult> perform(const std::string& member, const std::vector<std::string>& args,
                                      const std::function<void(CallResult)>& answerLater) {
        if (member == bus::listRules || member == bus::enableRule || member == bus::disableRule ||
            member == bus::deleteRule || member == bus::expireRule)
            return performRule(member, args, answerLater);
        if (member == bus::showStatusWindow) {
            if (!extras.showStatusWindow)
                return std::unexpected(CallFailure{bus::noWindowError, "The agent runs without a window (headless)."});
            extras.showStatusWindow();
            return std::string();
        }
        if (member == bus::listPrompts) return listing();
        if (member == bus::cancelAll) {
            coordinator->cancelAllPrompts();
            return std::string();
        }
        if (args.empty()) return invalid("A prompt id is needed");
        auto found = queued(args[0]);
        if (!found) return std::unexpected(found.error());
        const Uuid id = found->id;
        const std::string argument = args.size() > 1 ? args[1] : std::string();

        if (member == bus::getPrompt) {
            return serializeCompact(entry(coordinator->activePrompts().value()[found->index], true));
        }
        if (member == bus::cancel) {
            coordinator->cancelPrompt(id);
        } else if (member == bus::resolve && argument.empty()) {
            coordinator->resolvePrompt(id);
        } else if (member == bus::resolve || member == bus::setPreset) {
            auto chosen = preset(argument);
            if (!chosen) return std::unexpected(chosen.error());
            if (member == bus::resolve) {
                coordinator->resolvePrompt(id, *chosen);
            } else {
                coordinator->setSelectedPreset(id, *chosen);
            }
        } else if (member == bus::setHostScope) {
            const auto& session = coordinator->activePrompts().value()[found->index];
            auto selection = TrafficPromptViewModel::selectingHostScope(session, argument);
            if (!selection) return invalid("Not a host scope of this prompt: \"" + argument + "\"");
            coordinator->setRuleSelection(id, std::move(*selection));
        } else if (member == bus::setReuseExistingSignerRule) {
            coordinator->setReuseExistingSignerRule(id, argument == "true");
        } else if (member == bus::setRuleSelection) {
            auto selection = decodeJson<FlowPromptRuleSelection>(argument);
            if (!selection) return invalid("Not a rule selection: " + selection.error().description());
            coordinator->setRuleSelection(id, std::move(*selection));
        }
        return std::string();
    }

    // ---- Bus thread -------------------------------------------------------

    static int onCall(sd_bus_message* message, void* userdata, sd_bus_error*) {
        auto* core = static_cast<Core*>(userdata);
        // sd-bus has checked the arguments against the table: strings, and one
        // boolean, which travels on as "true" or "false".
        std::vector<std::string> args;
        const std::string_view signature = sd_bus_message_get_signature(message, 1);
        for (const char type : signature) {
            if (type == 'b') {
                int flag = 0;
                if (const int r = sd_bus_message_read_basic(message, 'b', &flag); r <= 0) return r < 0 ? r : -EINVAL;
                args.emplace_back(flag != 0 ? "true" : "false");
                continue;
            }
            const char* text = nullptr;
            if (const int r = sd_bus_message_read_basic(message, 's', &text); r <= 0) return r < 0 ? r : -EINVAL;
            args.emplace_back(text);
        }

        const std::uint64_t number = core->nextCall++;
        core->pendingCalls.emplace(number, sd_bus_message_ref(message));
        core->mainThread->post([weak = core->weak_from_this(), number, member = std::string(sd_bus_message_get_member(message)),
                                args = std::move(args)] {
            auto self = weak.lock();
            if (!self) return;
            auto reply = [weak, number, member](CallResult result) {
                auto core = weak.lock();
                if (!core) return;
                core->postToBus([raw = core.get(), number, member, result = std::move(result)](sd_bus* busConnection) {
                    raw->answer(busConnection, number, member, result);
                });
            };
            std::optional<CallResult> result;
            try {
                result = self->perform(member, args, reply);
            } catch (const std::exception& error) {
                result = std::unexpected(CallFailure{bus::failedError, error.what()});
            }
            if (result) reply(std::move(*result));
        });
        return 1;  // answered later, from the bus thread
    }

    void answer(sd_bus* busConnection, std::uint64_t number, const std::string& member, const CallResult& result) {
        const auto at = pendingCalls.find(number);
        if (at == pendingCalls.end()) return;
        sd_bus_message* call = at->second;
        pendingCalls.erase(at);
        if (busConnection != nullptr) {
            int sent = 0;
            if (!result) {
                sent = sd_bus_reply_method_errorf(call, result.error().name, "%s", result.error().message.c_str());
            } else if (member == bus::listPrompts || member == bus::getPrompt || member == bus::listRules) {
                sent = sd_bus_reply_method_return(call, "s", result->c_str());
            } else {
                sent = sd_bus_reply_method_return(call, "");
            }
            if (sent < 0) logger.error("Failed to answer a session bus call: %{public}s", errnoText(sent));
        }
        sd_bus_message_unref(call);
    }
};

namespace {

using Core = AgentSessionBusService::Core;

const sd_bus_vtable agentVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("ListPrompts", "", "", "s", SD_BUS_PARAM(listing), Core::onCall, 0),
    SD_BUS_METHOD_WITH_NAMES("GetPrompt", "s", SD_BUS_PARAM(id), "s", SD_BUS_PARAM(prompt), Core::onCall, 0),
    SD_BUS_METHOD_WITH_NAMES("SetPreset", "ss", SD_BUS_PARAM(id) SD_BUS_PARAM(preset), "", "", Core::onCall, 0),
    SD_BUS_METHOD_WITH_NAMES("SetHostScope", "ss", SD_BUS_PARAM(id) SD_BUS_PARAM(scope), "", "", Core::onCall, 0),
    SD_BUS_METHOD_WITH_NAMES("SetRuleSelection", "ss", SD_BUS_PARAM(id) SD_BUS_PARAM(selection), "", "",
                             Core::onCall, 0),
    SD_BUS_METHOD_WITH_NAMES("SetReuseExistingSignerRule", "sb", SD_BUS_PARAM(id) SD_BUS_PARAM(reuse), "", "",
                             Core::onCall, 0),
    SD_BUS_METHOD_WITH_NAMES("Resolve", "ss", SD_BUS_PARAM(id) SD_BUS_PARAM(preset), "", "", Core::onCall, 0),
    SD_BUS_METHOD_WITH_NAMES("Cancel", "s", SD_BUS_PARAM(id), "", "", Core::onCall, 0),
    SD_BUS_METHOD("CancelAll", "", "", Core::onCall, 0),
    SD_BUS_METHOD_WITH_NAMES("ListRules", "", "", "s", SD_BUS_PARAM(listing), Core::onCall, 0),
    SD_BUS_METHOD_WITH_NAMES("EnableRule", "s", SD_BUS_PARAM(id), "", "", Core::onCall, 0),
    SD_BUS_METHOD_WITH_NAMES("DisableRule", "s", SD_BUS_PARAM(id), "", "", Core::onCall, 0),
    SD_BUS_METHOD_WITH_NAMES("DeleteRule", "s", SD_BUS_PARAM(id), "", "", Core::onCall, 0),
    SD_BUS_METHOD_WITH_NAMES("ExpireRule", "ss", SD_BUS_PARAM(id) SD_BUS_PARAM(duration), "", "", Core::onCall, 0),
    SD_BUS_METHOD("ShowStatusWindow", "", "", Core::onCall, 0),
    SD_BUS_SIGNAL_WITH_NAMES("QueueChanged", "u", SD_BUS_PARAM(count), 0),
    SD_BUS_VTABLE_END,
};

}  // namespace

AgentSessionBusService::AgentSessionBusService(std::shared_ptr<Core> core) : core_(std::move(core)) {}

AgentSessionBusService::~AgentSessionBusService() = default;

std::unique_ptr<AgentSessionBusService> AgentSessionBusService::start(
    std::shared_ptr<AgentPromptCoordinator> coordinator, std::shared_ptr<MainThreadExecutor> mainThread,
    Extras extras) {
    auto core = std::make_shared<Core>();
    core->extras = std::move(extras);
    core->coordinator = std::move(coordinator);
    core->mainThread = std::move(mainThread);
    const auto off = [&](std::string_view why, int r) {
        core->logger.log("Session bus interface is off: %{public}s (%{public}s).", why, errnoText(r));
        return nullptr;
    };

    if (const int r = sd_bus_open_user(&core->connection); r < 0) {
        core->connection = nullptr;
        return off("no session bus", r);
    }
    if (const int r = sd_bus_add_object_vtable(core->connection, &core->slot, bus::objectPath, bus::interfaceName,
                                               agentVtable, core.get());
        r < 0) {
        return off("the agent object could not be registered", r);
    }
    if (const int r = sd_bus_request_name(core->connection, bus::busName, 0); r < 0) {
        return off(fmt::format("the name {} could not be taken", bus::busName), r);
    }
    core->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (core->wakeFd < 0) return off("no wake-up descriptor", -errno);

    core->queueObserver = core->coordinator->activePrompts().subscribe(
        [raw = core.get()](const std::vector<AgentPromptSession>& sessions) { raw->queueChanged(sessions.size()); });
    core->thread = std::thread([raw = core.get()] { raw->runLoop(); });
    core->logger.log("Serving the prompt queue on the session bus as %{public}s.", bus::busName);
    return std::unique_ptr<AgentSessionBusService>(new AgentSessionBusService(std::move(core)));
}

}  // namespace quillfort
