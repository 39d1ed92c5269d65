#include "support/LogSink.hpp"

#include <systemd/sd-journal.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <utility>

#include <fmt/format.h>

#include "model/Text.hpp"

namespace quillfort {

std::string_view logLevelName(LogLevel level) noexcept {
    return level == LogLevel::error ? "error" : "default";
}

std::string StderrLogSink::formatLine(const LogRecord& record) {
    using namespace std::chrono;
    const auto seconds = time_point_cast<std::chrono::seconds>(record.time);
    auto millis = duration_cast<milliseconds>(record.time - seconds).count();
    auto wholeSeconds = system_clock::to_time_t(seconds);
    if (millis < 0) {  // times before the epoch round towards the earlier second
        millis += 1000;
        wholeSeconds -= 1;
    }
    std::tm local{};
    localtime_r(&wholeSeconds, &local);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03} {} [{}:{}] {}", local.tm_year + 1900,
                       local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                       millis, logLevelName(record.level), record.subsystem, record.category,
                       record.message);
}

void StderrLogSink::write(const LogRecord& record) noexcept {
    try {
        auto line = formatLine(record);
        line.push_back('\n');
        // One call per line: stdio locks the stream, so lines from several
        // threads never interleave.
        std::fwrite(line.data(), 1, line.size(), stderr);
    } catch (...) {
    }
}

JournalLogSink::JournalLogSink(std::string syslogIdentifier)
    : syslogIdentifier_(std::move(syslogIdentifier)) {}

int JournalLogSink::priority(LogLevel level) noexcept {
    return level == LogLevel::error ? 3 : 6;
}

void JournalLogSink::write(const LogRecord& record) noexcept {
    // Values go through "%s" so a '%' inside a message is never interpreted.
    const int result = sd_journal_send("MESSAGE=%s", record.message.c_str(),
                                       "PRIORITY=%i", priority(record.level),
                                       "SYSLOG_IDENTIFIER=%s", syslogIdentifier_.c_str(),
                                       "QUILLFORT_SUBSYSTEM=%s", record.subsystem.c_str(),
                                       "QUILLFORT_CATEGORY=%s", record.category.c_str(), nullptr);
    // A record the journal refuses goes to stderr instead. (With no journal
    // running at all libsystemd drops records silently, which is why the journal
    // is chosen only under systemd or on request.)
    if (result < 0) StderrLogSink{}.write(record);
}

void CapturingLogSink::write(const LogRecord& record) noexcept {
    try {
        std::lock_guard lock(mutex_);
        records_.push_back(record);
    } catch (...) {
    }
}

std::vector<LogRecord> CapturingLogSink::records() const {
    std::lock_guard lock(mutex_);
    return records_;
}

bool CapturingLogSink::contains(std::string_view message) const {
    std::lock_guard lock(mutex_);
    return std::any_of(records_.begin(), records_.end(),
                       [&](const LogRecord& record) { return record.message == message; });
}

bool CapturingLogSink::containsMessagePart(std::string_view fragment) const {
    std::lock_guard lock(mutex_);
    return std::any_of(records_.begin(), records_.end(), [&](const LogRecord& record) {
        return record.message.find(fragment) != std::string::npos;
    });
}

void CapturingLogSink::clear() {
    std::lock_guard lock(mutex_);
    records_.clear();
}

namespace {

std::mutex& sinkMutex() {
    static std::mutex mutex;
    return mutex;
}

std::shared_ptr<LogSink>& installedSink() {
    static std::shared_ptr<LogSink> sink = std::make_shared<StderrLogSink>();
    return sink;
}

std::string programName(const ProcessInfo& processInfo) {
    const auto name = processInfo.arguments.empty()
                          ? std::string_view()
                          : text::lastPathComponent(processInfo.arguments.front());
    return name.empty() ? std::string("QuillfortAgent") : std::string(name);
}

}  // namespace

void setLogSink(std::shared_ptr<LogSink> sink) {
    if (!sink) sink = std::make_shared<StderrLogSink>();
    std::lock_guard lock(sinkMutex());
    installedSink().swap(sink);
    // `sink` now holds the previous sink, released after the lock is dropped.
}

std::shared_ptr<LogSink> currentLogSink() {
    std::lock_guard lock(sinkMutex());
    return installedSink();
}

std::shared_ptr<LogSink> defaultLogSink(const ProcessInfo& processInfo) {
    const bool underJournal = processInfo.environment.contains("JOURNAL_STREAM");
    const bool journalRequested =
        processInfo.environmentValue("QUILLFORT_LOG_TO_JOURNAL") == std::optional<std::string>("1");
    if (underJournal || journalRequested) {
        return std::make_shared<JournalLogSink>(programName(processInfo));
    }
    return std::make_shared<StderrLogSink>();
}

ScopedLogCapture::ScopedLogCapture()
    : sink_(std::make_shared<CapturingLogSink>()), previous_(currentLogSink()) {
    setLogSink(sink_);
}

ScopedLogCapture::~ScopedLogCapture() { setLogSink(previous_); }

}  // namespace quillfort
