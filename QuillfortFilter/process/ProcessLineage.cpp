#include "QuillfortFilter/process/ProcessLineage.hpp"

#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include "QuillfortFilter/process/ProcessTags.hpp"
#include "model/Text.hpp"

namespace quillfort::ProcessLineage {

namespace {

// A chain longer than this is a loop in what we read, not a real lineage.
constexpr std::size_t maximumAncestors = 64;

std::optional<std::string> readWholeFile(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) return std::nullopt;
    std::string content((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    if (stream.bad()) return std::nullopt;
    return content;
}

std::optional<std::string> readLink(const std::filesystem::path& path) {
    std::error_code error;
    auto target = std::filesystem::read_symlink(path, error);
    if (error || target.empty()) return std::nullopt;
    // A path is any bytes but NUL; what we send must be UTF-8.
    return text::validUtf8(target.string());
}

std::optional<std::uint64_t> parseUnsigned(std::string_view text) {
    if (text.empty()) return std::nullopt;
    std::uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
        if (value > (UINT64_MAX - digit) / 10) return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

std::optional<std::uint64_t> readBootTime(const ProcfsView& procfs) {
    auto stat = readWholeFile(procfs.root / "stat");
    if (!stat) return std::nullopt;
    std::istringstream lines(*stat);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("btime ")) return parseUnsigned(text::trimmed(std::string_view(line).substr(6)));
    }
    return std::nullopt;
}

std::optional<std::uint32_t> realUserID(const std::filesystem::path& statusFile) {
    auto status = readWholeFile(statusFile);
    if (!status) return std::nullopt;
    std::istringstream lines(*status);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with("Uid:")) continue;
        std::istringstream values(line.substr(4));
        std::string real;
        values >> real;
        auto uid = parseUnsigned(real);
        if (uid && *uid <= UINT32_MAX) return static_cast<std::uint32_t>(*uid);
        return std::nullopt;
    }
    return std::nullopt;
}

std::vector<std::string> commandLine(const std::filesystem::path& cmdlineFile) {
    std::vector<std::string> argv;
    auto content = readWholeFile(cmdlineFile);
    if (!content || content->empty()) return argv;
    std::string_view rest(*content);
    // Arguments end with a NUL each; a last one without it is kept as well.
    while (!rest.empty()) {
        const auto end = rest.find('\0');
        // Arguments are whatever bytes the process was given; the agent reads UTF-8 only.
        argv.push_back(text::validUtf8(rest.substr(0, end)));
        if (end == std::string_view::npos) break;
        rest.remove_prefix(end + 1);
    }
    return argv;
}

std::string withoutDeletedMark(std::string path) {
    constexpr std::string_view mark = " (deleted)";
    if (path.ends_with(mark)) path.resize(path.size() - mark.size());
    return path;
}

Error processUnreadable(std::int32_t pid, const std::filesystem::path& file, int err) {
    return Error{std::error_code(err, std::generic_category()),
                 fmt::format("Cannot read process {} ({}: {})", pid, file.string(),
                             std::error_code(err, std::generic_category()).message())};
}

ProcessNode nodeFrom(const InspectedProcess& process) {
    ProcessNode node;
    node.identity = process.identity;
    node.parentAuditToken = process.identity.parentAuditToken;
    node.tags = ProcessTags::classify(process.identity);
    node.state = ProcessState::running;
    return node;
}

}  // namespace

// "pid (comm) state ppid pgrp session tty_nr ... starttime ...": the command
// name may itself hold blanks and parentheses, so the fields start after the
// last ")".
std::optional<StatFields> parseStat(std::string_view stat) {
    const auto open = stat.find('(');
    const auto close = stat.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
    StatFields fields;
    fields.comm = text::validUtf8(stat.substr(open + 1, close - open - 1));
    const auto rest = text::splitNonEmpty(stat.substr(close + 1), ' ');
    // rest[0] is the state; ppid, tty_nr, flags and starttime follow at fixed places.
    constexpr std::size_t ppidIndex = 1, ttyIndex = 4, flagsIndex = 6, startTimeIndex = 19;
    if (rest.size() <= startTimeIndex || rest[0].size() != 1) return std::nullopt;
    auto ppid = parseUnsigned(rest[ppidIndex]);
    auto tty = text::parseInt64(rest[ttyIndex]);
    auto flags = parseUnsigned(rest[flagsIndex]);
    auto start = parseUnsigned(text::trimmed(rest[startTimeIndex]));
    if (!ppid || *ppid > INT32_MAX || !tty || !flags || !start) return std::nullopt;
    fields.state = rest[0].front();
    fields.parentPid = static_cast<std::int32_t>(*ppid);
    fields.ttyNr = static_cast<std::uint32_t>(*tty);
    fields.flags = *flags;
    fields.startTicks = *start;
    return fields;
}

ProcfsView ProcfsView::system() {
    ProcfsView view;
    const long ticks = ::sysconf(_SC_CLK_TCK);
    if (ticks > 0) view.clockTicksPerSecond = ticks;
    view.bootTimeSeconds = readBootTime(view);
    return view;
}

Bytes auditToken(std::int32_t pid, std::uint64_t startTicks) {
    Bytes token;
    const auto pidBits = static_cast<std::uint32_t>(pid);
    for (int shift = 24; shift >= 0; shift -= 8) token.value.push_back(static_cast<std::uint8_t>(pidBits >> shift));
    for (int shift = 56; shift >= 0; shift -= 8)
        token.value.push_back(static_cast<std::uint8_t>(startTicks >> shift));
    return token;
}

std::optional<std::string> terminalPath(std::uint32_t ttyNr) {
    if (ttyNr == 0) return std::nullopt;
    const std::uint32_t major = (ttyNr >> 8) & 0xfff;
    const std::uint32_t minor = (ttyNr & 0xff) | ((ttyNr >> 12) & 0xfff00);
    if (major >= 136 && major <= 143) return fmt::format("/dev/pts/{}", (major - 136) * 256 + minor);
    if (major == 4 && minor < 64) return fmt::format("/dev/tty{}", minor);
    if (major == 4 && minor < 256) return fmt::format("/dev/ttyS{}", minor - 64);
    if (major == 5 && minor == 0) return "/dev/tty";
    if (major == 5 && minor == 1) return "/dev/console";
    return std::nullopt;
}

namespace {

bool exitingNow(const std::filesystem::path& statFile) {
    const auto stat = readWholeFile(statFile);
    const auto fields = stat ? parseStat(*stat) : std::nullopt;
    return !fields || fields->exiting();
}

}  // namespace

Result<InspectedProcess> inspectProcess(std::int32_t pid, const ProcfsView& procfs) {
    if (pid <= 0) return std::unexpected(Error::withMessage(fmt::format("{} is not a process id", pid)));
    const auto directory = procfs.root / std::to_string(pid);
    const auto statFile = directory / "stat";
    errno = 0;
    auto stat = readWholeFile(statFile);
    if (!stat) return std::unexpected(processUnreadable(pid, statFile, errno != 0 ? errno : ENOENT));
    auto fields = parseStat(*stat);
    if (!fields)
        return std::unexpected(Error::withMessage(fmt::format("Cannot read process {}: malformed {}", pid,
                                                              statFile.string())));
    if (fields->exiting())
        return std::unexpected(Error{std::make_error_code(std::errc::no_such_process),
                                     fmt::format("Process {} is exiting", pid)});

    InspectedProcess process;
    process.parentPid = fields->parentPid;
    process.startTicks = fields->startTicks;

    ProcessIdentity& identity = process.identity;
    identity.pid = pid;
    identity.auditToken = auditToken(pid, fields->startTicks);
    identity.argv = commandLine(directory / "cmdline");
    if (auto exe = readLink(directory / "exe"))
        identity.executablePath = withoutDeletedMark(std::move(*exe));
    else if (!identity.argv.empty() && !identity.argv.front().empty())
        identity.executablePath = identity.argv.front();
    else if (exitingNow(statFile))
        // Began to exit after its stat was read: what it ran is gone from
        // here, and its name must come from the kernel's record instead.
        return std::unexpected(Error{std::make_error_code(std::errc::no_such_process),
                                     fmt::format("Process {} is exiting", pid)});
    else
        identity.executablePath = "[" + fields->comm + "]";  // a kernel thread
    identity.userID = realUserID(directory / "status");
    identity.tty = terminalPath(fields->ttyNr);
    identity.cwd = readLink(directory / "cwd");
    identity.scriptPath = ProcessTags::scriptPath(identity);
    if (auto boot = procfs.bootTimeSeconds ? procfs.bootTimeSeconds : readBootTime(procfs);
        boot && procfs.clockTicksPerSecond > 0) {
        const auto secondsAfterBoot = fields->startTicks / static_cast<std::uint64_t>(procfs.clockTicksPerSecond);
        identity.launchTime = Date(std::chrono::seconds(static_cast<std::int64_t>(*boot + secondsAfterBoot)));
    }
    if (fields->parentPid > 0) {
        auto parentStat = readWholeFile(procfs.root / std::to_string(fields->parentPid) / "stat");
        if (auto parent = parentStat ? parseStat(*parentStat) : std::nullopt)
            identity.parentAuditToken = auditToken(fields->parentPid, parent->startTicks);
    }
    return process;
}

Result<ProcessLineage> inspectLineage(std::int32_t pid, const ProcfsView& procfs) {
    auto process = inspectProcess(pid, procfs);
    if (!process) return std::unexpected(std::move(process.error()));

    ProcessLineage lineage;
    lineage.process = nodeFrom(*process);
    std::set<std::int32_t> seen{pid};
    std::int32_t parentPid = process->parentPid;
    Bytes childToken = process->identity.auditToken;
    while (parentPid > 0 && lineage.ancestors.size() < maximumAncestors && seen.insert(parentPid).second) {
        auto parent = inspectProcess(parentPid, procfs);
        if (!parent) break;  // it exited meanwhile, or is hidden from us
        ProcessNode node = nodeFrom(*parent);
        node.childAuditTokens.push_back(childToken);
        childToken = node.identity.auditToken;
        lineage.ancestors.push_back(std::move(node));
        parentPid = parent->parentPid;
    }
    ProcessTags::inherit(lineage.process, lineage.ancestors);
    return lineage;
}

}  // namespace quillfort::ProcessLineage
