// Where log records go: the Linux stand-in for the platform's unified logging.
// One process-wide sink receives every record; tests swap in a capturing one.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ProcessInfo.hpp"

namespace quillfort {

// The two levels the system logs at: default for progress, error for failures.
enum class LogLevel { defaultLevel, error };

[[nodiscard]] std::string_view logLevelName(LogLevel level) noexcept;

struct LogRecord {
    std::chrono::system_clock::time_point time;
    std::string subsystem;
    std::string category;
    LogLevel level = LogLevel::defaultLevel;
    std::string message;

    bool operator==(const LogRecord&) const = default;
};

// Implementations must be safe to call from several threads at once and must
// swallow their own failures: logging never disturbs the caller.
class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void write(const LogRecord& record) noexcept = 0;
};

// One line per record on standard error, carrying subsystem and category like
// the journal fields do:
// "2026-11-22 22:31:05.123 default [com.vessimo.Quillfort:agent] Queued prompt ..." (local time).
class StderrLogSink final : public LogSink {
public:
    void write(const LogRecord& record) noexcept override;

    // The line written for `record`, without the trailing line break.
    [[nodiscard]] static std::string formatLine(const LogRecord& record);
};

// The systemd journal, with the subsystem and category as fields of their own
// so that `journalctl --user -u quillfort-agent QUILLFORT_CATEGORY=agent`
// selects one component. A
// record the journal refuses goes to stderr instead.
class JournalLogSink final : public LogSink {
public:
    explicit JournalLogSink(std::string syslogIdentifier);
    void write(const LogRecord& record) noexcept override;

    // 6 (info) for the default level, 3 (err) for errors.
    [[nodiscard]] static int priority(LogLevel level) noexcept;

private:
    std::string syslogIdentifier_;
};

// Keeps every record in memory, for tests.
class CapturingLogSink final : public LogSink {
public:
    void write(const LogRecord& record) noexcept override;

    [[nodiscard]] std::vector<LogRecord> records() const;
    // Whether some record's message is exactly `message`.
    [[nodiscard]] bool contains(std::string_view message) const;
    // Whether some record's message has `fragment` anywhere in it.
    [[nodiscard]] bool containsMessagePart(std::string_view fragment) const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<LogRecord> records_;
};

// The process-wide sink. Until a program installs one, records go to stderr.
// Passing nullptr restores that stderr sink.
void setLogSink(std::shared_ptr<LogSink> sink);
[[nodiscard]] std::shared_ptr<LogSink> currentLogSink();

// The journal when the process runs under it (JOURNAL_STREAM is set, as systemd
// does for services) or when QUILLFORT_LOG_TO_JOURNAL is "1"; stderr otherwise.
[[nodiscard]] std::shared_ptr<LogSink> defaultLogSink(const ProcessInfo& processInfo);

// Installs a capturing sink for its lifetime and puts the previous sink back.
class ScopedLogCapture {
public:
    ScopedLogCapture();
    ~ScopedLogCapture();
    ScopedLogCapture(const ScopedLogCapture&) = delete;
    ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

    [[nodiscard]] CapturingLogSink& sink() const noexcept { return *sink_; }
    [[nodiscard]] std::vector<LogRecord> records() const { return sink_->records(); }
    [[nodiscard]] bool contains(std::string_view message) const { return sink_->contains(message); }

private:
    std::shared_ptr<CapturingLogSink> sink_;
    std::shared_ptr<LogSink> previous_;
};

}  // namespace quillfort
