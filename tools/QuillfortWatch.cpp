#include "tools/QuillfortWatch.hpp"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cctype>
#include <clocale>
#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "contracts/PromptAgentStatusStore.hpp"
#include "contracts/QuillfortAgentBusInterface.hpp"
#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "contracts/QuillfortSharedContainer.hpp"
#include "model/Json.hpp"
#include "tools/AgentBusClient.hpp"
#include "tools/RunningAgent.hpp"
#include "tools/StatusFormatting.hpp"

// Last: ncurses would otherwise define move(), clear() and the like as macros.
#define NCURSES_NOMACROS
#include <ncurses.h>

namespace quillfort::QuillfortWatch {

namespace bus = QuillfortAgentBusInterface;

namespace {

volatile std::sig_atomic_t interrupted = 0;
extern "C" void onInterrupt(int) { interrupted = 1; }

constexpr std::chrono::milliseconds changeDelay{200};
constexpr const char* keyHelp = "arrows/jk pick  1/2/3 duration  h host scope  a allow  b block  c cancel  q quit";

// One queued prompt as the screen shows it.
struct Entry {
    std::string id;
    std::string preset;  // camel case, the agent's choice (or ours, without a bus)
    std::string row;     // the queue line
    std::vector<std::string> details;
    std::vector<std::string> hostScopeIDs;
    std::string selectedHostScopeID;
};

struct Model {
    std::string title;   // "3 prompts awaiting a decision"
    std::string banner;  // where the data comes from, or why there is none
    std::string warning;  // why the data may be out of date
    std::vector<Entry> entries;
};

// Cuts `text` to `width` characters, counting UTF-8 sequences as one.
std::string fitted(const std::string& text, int width) {
    int count = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) == 0x80) continue;
        if (count++ == width) return text.substr(0, i);
    }
    return text;
}

std::string field(const json::object& object, std::string_view key) {
    const auto* value = object.if_contains(key);
    return value != nullptr && value->is_string() ? std::string(value->get_string()) : std::string();
}

// "allow" or "block", and "Once", "Session" or "Permanent", of a camel-case preset.
std::pair<std::string, std::string> presetParts(const std::string& preset) {
    const std::string side = preset.starts_with("block") ? "block" : "allow";
    std::string duration = preset.substr(std::min(preset.size(), side.size()));
    if (duration.empty()) duration = "Once";
    return {side, duration};
}

std::string kebab(const std::string& preset) {
    auto [side, duration] = presetParts(preset);
    for (auto& c : duration) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return side + "-" + duration;
}

const char* durationTitle(const std::string& duration) {
    if (duration == "Session") return "Session";
    if (duration == "Permanent") return "Always";
    return "Once";
}

// One prompt as the agent sends it on the bus; every text is the agent's own.
std::optional<Entry> entryFromPrompt(const json::value& value) {
    if (!value.is_object()) return std::nullopt;
    const auto& prompt = value.get_object();
    const auto* textsValue = prompt.if_contains("texts");
    if (textsValue == nullptr || !textsValue->is_object()) return std::nullopt;
    const auto& t = textsValue->get_object();
    Entry entry;
    entry.id = field(prompt, "id");
    entry.preset = field(prompt, "selectedPreset");
    entry.selectedHostScopeID = field(t, "selectedHostScopeID");
    std::string hostScopeTitle = entry.selectedHostScopeID;
    if (const auto* options = t.if_contains("hostScopeOptions"); options != nullptr && options->is_array()) {
        for (const auto& option : options->get_array()) {
            if (!option.is_object()) continue;
            const std::string id = field(option.get_object(), "id");
            entry.hostScopeIDs.push_back(id);
            if (id == entry.selectedHostScopeID) hostScopeTitle = field(option.get_object(), "title");
        }
    }
    entry.row = fmt::format("{:<32} {:<7} {:<24} {}", field(t, "headerTitle"), field(t, "proto"),
                            field(t, "processTitle"), field(t, "durationTitle"));
    std::string caption =
        fmt::format("{} · {} · {}", field(t, "proto"), field(t, "directionTitle"), field(t, "processTitle"));
    if (auto remembered = field(t, "rememberedTitle"); !remembered.empty()) caption += " · " + remembered;
    entry.details = {
        field(t, "headerTitle"),
        caption,
        "Path       " + field(t, "processPath"),
        "Signer     " + field(t, "signerTitle"),
        "Tags       " + field(t, "tagsTitle"),
        "Ancestors  " + field(t, "ancestorSummary"),
        "Host       " + hostScopeTitle,
        "Duration   " + field(t, "durationTitle"),
        "Rule       " + field(t, "previewText"),
    };
    if (auto also = field(t, "alsoAnswersText"); !also.empty()) entry.details.push_back(also);
    if (auto summary = field(t, "signerChangeSummary"); !summary.empty()) entry.details.push_back(summary);
    entry.details.push_back(fmt::format("a: {}   b: {}   c: Cancel", field(t, "allowTitle"), field(t, "blockTitle")));
    return entry;
}

// The queue as the agent lists it on the bus.
std::optional<std::vector<Entry>> entriesFromListing(const std::string& listing, std::string& title) {
    auto parsed = parseJson(listing);
    if (!parsed || !parsed->is_object()) return std::nullopt;
    const auto& root = parsed->get_object();
    title = field(root, "statusSummary");
    const auto* prompts = root.if_contains("prompts");
    if (prompts == nullptr || !prompts->is_array()) return std::nullopt;
    std::vector<Entry> entries;
    for (const auto& value : prompts->get_array()) {
        if (auto entry = entryFromPrompt(value)) entries.push_back(std::move(*entry));
    }
    return entries;
}

class Terminal {
public:
    Terminal() {
        std::setlocale(LC_ALL, "");
        initscr();
        cbreak();
        noecho();
        keypad(stdscr, TRUE);
        nodelay(stdscr, TRUE);
        curs_set(0);
    }
    ~Terminal() { endwin(); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;
};

void line(int y, const std::string& text, attr_t attributes = A_NORMAL) {
    if (y < 0 || y >= LINES) return;
    attron(attributes);
    mvaddstr(y, 0, fitted(text, COLS).c_str());
    attroff(attributes);
}

// `text` cut into lines of at most `width` characters; the lines after the
// first are indented to the column after the label, so a long rule preview
// stays readable on 80 columns.
std::vector<std::string> wrapped(const std::string& text, int width) {
    constexpr std::size_t indent = 11;  // "Rule       "
    std::vector<std::string> lines;
    std::string rest = text;
    while (true) {
        const std::string head = fitted(rest, width);
        if (head.size() == rest.size() || head.empty()) {
            lines.push_back(rest);
            return lines;
        }
        // Break at the last blank of the line when there is one past the label.
        std::size_t cut = head.rfind(' ');
        if (cut == std::string::npos || cut <= indent) cut = head.size();
        lines.push_back(rest.substr(0, cut));
        rest = std::string(indent, ' ') + rest.substr(cut + (cut < rest.size() && rest[cut] == ' ' ? 1 : 0));
    }
}

// Top to bottom: title, source, the queue, a rule, the chosen prompt's
// details, its answer buttons, the last message and the keys. The queue takes
// no more rows than it has prompts (at most a third of the screen), and the
// answer line keeps its row however long the details run, so on 80 x 24 the
// facts that decide an answer always show.
void draw(const Model& model, std::size_t selected, const std::string& message) {
    erase();
    line(0, "Quillfort watch  ·  " + model.title, A_BOLD);
    line(1, model.banner, A_DIM);
    line(2, model.warning, A_BOLD);
    const int listTop = 3;
    const int listHeight = std::clamp(static_cast<int>(model.entries.size()), 1, std::max(1, (LINES - 6) / 3));
    const std::size_t first =
        selected >= static_cast<std::size_t>(listHeight) ? selected - static_cast<std::size_t>(listHeight) + 1 : 0;
    for (int i = 0; i < listHeight; ++i) {
        const std::size_t index = first + static_cast<std::size_t>(i);
        if (index >= model.entries.size()) break;
        const bool chosen = index == selected;
        line(listTop + i, (chosen ? "> " : "  ") + model.entries[index].row, chosen ? A_REVERSE : A_NORMAL);
    }
    int y = listTop + listHeight;
    mvhline(y++, 0, ACS_HLINE, COLS);
    if (selected < model.entries.size()) {
        const auto& details = model.entries[selected].details;
        const int detailsEnd = LINES - 3;  // the answer line's row
        for (std::size_t i = 0; i + 1 < details.size(); ++i) {
            for (const auto& text : wrapped(details[i], COLS)) {
                if (y >= detailsEnd) break;
                line(y++, text, i == 0 ? A_BOLD : A_NORMAL);
            }
        }
        if (!details.empty()) line(detailsEnd, details.back(), A_BOLD);
    }
    line(LINES - 2, message, A_BOLD);
    line(LINES - 1, keyHelp, A_DIM);
    refresh();
}

// Where the screen's data comes from and where its answers go.
class Source {
public:
    virtual ~Source() = default;
    // The queue, with the prompt `selectedID` (when still queued) in full.
    virtual Model load(const std::string& selectedID) = 0;
    // How often to look again without being told of a change.
    virtual int refreshIntervalMs() const { return 1000; }
    // One key on the chosen prompt; the text says what happened or went wrong.
    virtual std::string act(int key, Entry& entry) = 0;
    virtual int descriptor() { return -1; }
    virtual short events() { return 0; }
    virtual bool changed() { return false; }
};

class BusSource final : public Source {
public:
    explicit BusSource(std::unique_ptr<AgentBusClient> client) : client_(std::move(client)) {}

    Model load(const std::string& selectedID) override {
        Model model;
        auto listing = client_->call(bus::listPrompts);
        agentRunning_ = listing.has_value();
        if (!listing) {
            model.title = "no agent";
            model.banner = listing.error().agentMissing()
                               ? "No Quillfort agent is running on this session bus; waiting "
                                 "for one to start."
                               : "The agent did not answer: " + listing.error().message;
            return model;
        }
        auto entries = entriesFromListing(*listing, model.title);
        if (!entries) {
            model.banner = "The agent's answer could not be read.";
            return model;
        }
        model.entries = std::move(*entries);
        model.banner = "Live from the agent on the session bus.";
        // The listing counts what an answer also settles for the head only;
        // the chosen prompt is asked for in full.
        const auto chosen = std::find_if(model.entries.begin(), model.entries.end(),
                                         [&](const Entry& e) { return e.id == selectedID; });
        if (chosen != model.entries.begin() && chosen != model.entries.end()) {
            if (auto full = client_->call(bus::getPrompt, {selectedID})) {
                auto parsed = parseJson(*full);
                if (auto entry = parsed ? entryFromPrompt(*parsed) : std::nullopt) *chosen = std::move(*entry);
            }
        }
        return model;
    }

    // Changes come as signals; the timer only notices an agent that starts or stops.
    int refreshIntervalMs() const override { return agentRunning_ ? 5000 : 1000; }

    std::string act(int key, Entry& entry) override {
        auto [side, duration] = presetParts(entry.preset);
        std::expected<std::string, AgentBusError> done;
        std::string what;
        switch (key) {
            case '1':
            case '2':
            case '3': {
                const char* durations[] = {"Once", "Session", "Permanent"};
                duration = durations[key - '1'];
                done = client_->call(bus::setPreset, {entry.id, side + duration});
                // Keys typed ahead of the next listing build on this choice.
                if (done) entry.preset = side + duration;
                what = fmt::format("Duration: {}", durationTitle(duration));
                break;
            }
            case 'h': {
                if (entry.hostScopeIDs.empty()) return "This prompt has no host scopes.";
                auto at = std::find(entry.hostScopeIDs.begin(), entry.hostScopeIDs.end(), entry.selectedHostScopeID);
                const std::size_t next =
                    at == entry.hostScopeIDs.end()
                        ? 0
                        : (static_cast<std::size_t>(at - entry.hostScopeIDs.begin()) + 1) % entry.hostScopeIDs.size();
                done = client_->call(bus::setHostScope, {entry.id, entry.hostScopeIDs[next]});
                what = "Host scope changed.";
                break;
            }
            case 'a':
            case 'b': {
                const std::string preset = (key == 'a' ? "allow" : "block") + duration;
                done = client_->call(bus::resolve, {entry.id, preset});
                what = fmt::format("Answered {} with {}.", entry.id, preset);
                break;
            }
            case 'c':
                done = client_->call(bus::cancel, {entry.id});
                what = fmt::format("Cancelled {}.", entry.id);
                break;
            default:
                return {};
        }
        return done ? what : "Failed: " + done.error().message;
    }

    int descriptor() override { return client_->descriptor(); }
    short events() override { return client_->events(); }
    bool changed() override { return client_->processChanged(); }

private:
    std::unique_ptr<AgentBusClient> client_;
    bool agentRunning_ = false;
};

// Without a bus: the status file's few fields, and answers through the
// automation command file, as `quillfort answer` gives them.
class FileSource final : public Source {
public:
    FileSource(std::string home, const QuillfortCommandLine::Environment& environment)
        : home_(std::move(home)), environment_(environment) {}

    Model load(const std::string&) override {
        Model model;
        std::optional<std::filesystem::path> home;
        if (!home_.empty()) home = std::filesystem::absolute(home_);
        auto status = PromptAgentStatusStore::inSharedContainer(*environment_.fileSystem, home).loadIfPresent();
        if (!status || !*status) {
            model.title = "no agent";
            model.banner = "No Quillfort agent is running (no status file, no session bus).";
            return model;
        }
        model.title = fmt::format("{} queued (status file)", (*status)->activePromptCount);
        model.banner =
            "No session bus: status-file fields only, answered by "
            "automation command.";
        std::optional<RunningAgent::Agent> agent;
        if (const auto container = QuillfortSharedContainer::containerURL(*environment_.fileSystem, home)) {
            agent = RunningAgent::holdingLock(*container / QuillfortPromptEndpointStore::bridgeSessionsDirectoryName /
                                              QuillfortSharedContainer::agentLockFilename);
        }
        model.warning = StatusFormatting::staleStatusNote((*status)->updatedAt, agent).value_or("");
        for (const auto& queued : (*status)->queuedPrompts) {
            Entry entry;
            entry.id = queued.promptID.uppercaseString();
            entry.preset = choices_.contains(entry.id) ? choices_[entry.id] : "allowOnce";
            const std::string destination = queued.port ? fmt::format("{}:{}", queued.host, *queued.port) : queued.host;
            const char* duration = durationTitle(presetParts(entry.preset).second);
            entry.row = fmt::format("{:<32} {:<24} {}", destination, queued.processDisplayTitle, duration);
            entry.details = {destination,
                             queued.processDisplayTitle,
                             "Preview    " + queued.previewText,
                             std::string("Duration   ") + duration,
                             "Prompt     " + entry.id,
                             fmt::format("a: allow   b: block   ({})   c: cancel", duration)};
            model.entries.push_back(std::move(entry));
        }
        return model;
    }

    std::string act(int key, Entry& entry) override {
        auto [side, duration] = presetParts(entry.preset);
        switch (key) {
            case '1':
            case '2':
            case '3': {
                const char* durations[] = {"Once", "Session", "Permanent"};
                entry.preset = choices_[entry.id] = side + durations[key - '1'];
                return fmt::format("Duration: {}", durationTitle(durations[key - '1']));
            }
            case 'h':
                return "Host scopes need the agent on the session bus.";
            case 'a':
                return answer(entry.id, "allow" + duration);
            case 'b':
                return answer(entry.id, "block" + duration);
            case 'c':
                return answer(entry.id, "blockOnce");
            default:
                return {};
        }
    }

private:
    std::string answer(const std::string& id, const std::string& preset) {
        std::vector<std::string> arguments{"answer", id, kebab(preset)};
        if (!home_.empty()) arguments.insert(arguments.end(), {"--home", home_});
        std::ostringstream out;
        std::ostringstream err;
        const int status = QuillfortCommandLine::run(arguments, environment_, out, err);
        std::string text = status == QuillfortCommandLine::exitSuccess ? out.str() : err.str();
        while (!text.empty() && text.back() == '\n') text.pop_back();
        return text;
    }

    std::string home_;
    const QuillfortCommandLine::Environment& environment_;
    std::map<std::string, std::string> choices_;  // duration picked per prompt, by id
};

}  // namespace

int run(const std::string& home, const QuillfortCommandLine::Environment& environment, std::ostream& err) {
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
        err << "quillfort: watch needs a terminal\n";
        return QuillfortCommandLine::exitUsage;
    }
    std::unique_ptr<Source> source;
    if (auto client = AgentBusClient::connect()) {
        source = std::make_unique<BusSource>(std::move(*client));
    } else {
        source = std::make_unique<FileSource>(home, environment);
    }

    interrupted = 0;
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    struct sigaction previous[3]{};
    const int signals[] = {SIGINT, SIGTERM, SIGHUP};
    for (int i = 0; i < 3; ++i) sigaction(signals[i], &action, &previous[i]);

    {
        const Terminal terminal;
        Model model;
        std::string selectedID;
        std::size_t selected = 0;
        std::string message;
        bool reload = true;
        bool changed = false;  // the agent signalled a change not listed yet
        auto loadedAt = std::chrono::steady_clock::now();
        bool quit = false;
        while (!quit && interrupted == 0) {
            if (reload) {
                model = source->load(selectedID);
                loadedAt = std::chrono::steady_clock::now();
                changed = false;
                // Stay on the same prompt while the queue moves under it.
                const auto at = std::find_if(model.entries.begin(), model.entries.end(),
                                             [&](const Entry& e) { return e.id == selectedID; });
                if (at != model.entries.end()) {
                    selected = static_cast<std::size_t>(at - model.entries.begin());
                } else if (!model.entries.empty()) {
                    selected = std::min(selected, model.entries.size() - 1);
                }
                selectedID = model.entries.empty() ? std::string() : model.entries[selected].id;
                reload = false;
            }
            draw(model, selected, message);

            // A burst of prompts signals many changes; list at most every
            // changeDelay, so a long queue is not listed over and over.
            const auto sinceLoad = std::chrono::steady_clock::now() - loadedAt;
            const int wait = changed ? static_cast<int>(std::max<std::int64_t>(
                                           0, std::chrono::duration_cast<std::chrono::milliseconds>(changeDelay - sinceLoad)
                                                  .count()))
                                     : source->refreshIntervalMs();
            pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {source->descriptor(), source->events(), 0}};
            const int ready = ::poll(fds, fds[1].fd >= 0 ? 2 : 1, wait);
            if (source->changed()) changed = true;
            if (ready == 0) reload = true;  // the time is up, for a change or the periodic look

            for (int key = getch(); key != ERR; key = getch()) {
                const bool any = !model.entries.empty();
                switch (key) {
                    case 'q':
                    case 'Q':
                        quit = true;
                        break;
                    case KEY_RESIZE:
                        break;  // the next draw uses the new size
                    case KEY_UP:
                    case 'k':
                        if (any && selected > 0) --selected;
                        reload = true;  // the newly chosen prompt in full
                        break;
                    case KEY_DOWN:
                    case 'j':
                        if (any && selected + 1 < model.entries.size()) ++selected;
                        reload = true;
                        break;
                    default:
                        if (!any) {
                            message = "No prompt to act on.";
                            break;
                        }
                        if (auto said = source->act(key, model.entries[selected]); !said.empty()) {
                            message = std::move(said);
                            reload = true;
                        }
                }
                if (any) selectedID = model.entries[selected].id;
            }
        }
    }
    for (int i = 0; i < 3; ++i) sigaction(signals[i], &previous[i], nullptr);
    return QuillfortCommandLine::exitSuccess;
}

}  // namespace quillfort::QuillfortWatch
