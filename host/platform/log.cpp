/*
 * The log: one record per line,
 *
 *     2026-01-31T23:59:59.123Z error nasctrl[4711] nas_ip_mgr.cpp:77 NasIpMgrInit: text
 *
 * with the kernel's thread id in brackets. Levels, counts and the threshold are atomics; the mutex guards only which
 * logger is open and is held for the copy of a pointer. Callable from every thread; nothing here is ever destroyed,
 * because detached threads may log until the process is gone.
 */
#include "platform/log.h"

#include "platform/thread_id.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <new>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <stdexcept>
#include <string_view>

namespace {

constexpr size_t kStackText = 2048;
constexpr std::chrono::seconds kFlushPeriod{1};
constexpr uint32_t kUnknownClassLevel = NASCTRL_LOG_INFO;

struct Name {
    uint32_t number;
    std::string_view name;
};
constexpr Name kLevelNames[] = {
    {NASCTRL_LOG_ERROR, "error"}, {NASCTRL_LOG_PROGRESS, "progress"}, {NASCTRL_LOG_INFO, "info"}};
constexpr Name kModuleNames[] = {
    {NASCTRL_LOG_MODULE, "nasctrl"}, {host::kLogModule, "nasctrld"}, {host::kStorageLogModule, "nasstored"}};

constinit std::atomic<uint32_t> g_threshold{NASCTRL_LOG_INFO};
constinit std::array<std::atomic<uint32_t>, host::kLogClasses> g_classLevels{6, 4, 4, 3};
constinit std::array<std::atomic<uint64_t>, host::kMaxLogLevel + 1> g_lineCounts{};

std::shared_ptr<spdlog::logger> makeLogger(std::vector<spdlog::sink_ptr> sinks)
{
    auto logger = std::make_shared<spdlog::logger>("nasctrld", sinks.begin(), sinks.end());
    logger->set_level(spdlog::level::trace); // the threshold is ours
    logger->set_formatter(
        std::make_unique<spdlog::pattern_formatter>("%Y-%m-%dT%H:%M:%S.%eZ %v", spdlog::pattern_time_type::utc));
    logger->flush_on(spdlog::level::err);
    return logger;
}

struct Output {
    std::mutex mutex;
    std::shared_ptr<spdlog::logger> logger = makeLogger({std::make_shared<spdlog::sinks::stderr_sink_mt>()});
};

// Until openLog, records go to standard error.
Output &output()
{
    static auto &kept = *new Output;
    return kept;
}

std::shared_ptr<spdlog::logger> currentLogger()
{
    Output &out = output();
    const std::scoped_lock lock(out.mutex);
    return out.logger;
}

// The formatted text of a record: on the stack unless it is long, cut when there is no memory for a long one.
class Text {
public:
    Text(const char *format, va_list args)
    {
        va_list again;
        va_copy(again, args);
        const int length = std::vsnprintf(stack_, sizeof stack_, format, args);
        if (length < 0) {
            view_ = format;
        } else if (static_cast<size_t>(length) < sizeof stack_) {
            view_ = {stack_, static_cast<size_t>(length)};
        } else {
            formatLong(static_cast<size_t>(length), format, again);
        }
        va_end(again);
    }
    std::string_view view() const { return view_.ends_with('\n') ? view_.substr(0, view_.size() - 1) : view_; }

private:
    void formatLong(size_t length, const char *format, va_list args)
    {
        view_ = {stack_, sizeof stack_ - 1};
        heap_.reset(new (std::nothrow) char[length + 1]);
        if (heap_ != nullptr) {
            std::vsnprintf(heap_.get(), length + 1, format, args);
            view_ = {heap_.get(), length};
        }
    }

    char stack_[kStackText];
    std::unique_ptr<char[]> heap_;
    std::string_view view_;
};

template <size_t Count>
void appendName(spdlog::memory_buf_t &line, const Name (&names)[Count], uint32_t number)
{
    const auto *row = std::ranges::find(names, number, &Name::number);
    if (row != std::end(names)) {
        line.append(row->name);
    } else {
        fmt::format_to(std::back_inserter(line), "{}", number);
    }
}

// Whatever would end the line or command a terminal is shown as an escape.
void appendEscaped(spdlog::memory_buf_t &line, std::string_view text)
{
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            line.append(std::string_view("\\n"));
        } else if (c == '\r') {
            line.append(std::string_view("\\r"));
        } else if (c == '\t') {
            line.append(std::string_view("\\t"));
        } else if (byte < 0x20 || byte == 0x7F) {
            fmt::format_to(std::back_inserter(line), "\\x{:02x}", byte);
        } else {
            line.push_back(c);
        }
    }
}

struct Origin {
    uint32_t module;
    uint32_t level;
    const char *file;
    uint32_t line;
    const char *func;
};

std::string_view orUnknown(const char *text)
{
    return text != nullptr ? text : "?";
}

void write(const Origin &origin, std::string_view text)
{
    spdlog::memory_buf_t line;
    appendName(line, kLevelNames, origin.level);
    line.push_back(' ');
    appendName(line, kModuleNames, origin.module);
    fmt::format_to(std::back_inserter(line), "[{}] {}:{} {}: ", host::osThreadId(), orUnknown(origin.file), origin.line,
                   orUnknown(origin.func));
    appendEscaped(line, text);
    g_lineCounts[origin.level].fetch_add(1, std::memory_order_relaxed);
    const bool grave = origin.level <= NASCTRL_LOG_ERROR;
    currentLogger()->log(grave ? spdlog::level::err : spdlog::level::info, {line.data(), line.size()});
}

} // namespace

void host::openLog(const LogSettings &settings)
{
    std::vector<spdlog::sink_ptr> sinks;
    if (settings.console) {
        sinks.push_back(std::make_shared<spdlog::sinks::stderr_sink_mt>());
    }
    try {
        if (!settings.file.empty()) {
            sinks.push_back(std::make_shared<spdlog::sinks::basic_file_sink_mt>(settings.file));
        }
    } catch (const spdlog::spdlog_ex &error) {
        throw std::runtime_error(std::string("log: ") + error.what());
    }
    setLogThreshold(settings.threshold);
    for (uint32_t logClass = 0; logClass < kLogClasses; logClass++) {
        setLogClassLevel(logClass, settings.classLevels[logClass]);
    }
    const auto logger = makeLogger(std::move(sinks));
    Output &out = output();
    const std::scoped_lock lock(out.mutex);
    out.logger = logger;
    // spdlog's periodic flush knows only the loggers of its registry.
    spdlog::set_default_logger(logger);
    spdlog::flush_every(kFlushPeriod);
}

void host::flushLog()
{
    currentLogger()->flush();
}

uint32_t host::logThreshold()
{
    return g_threshold.load(std::memory_order_relaxed);
}

void host::setLogThreshold(uint32_t level)
{
    g_threshold.store(std::min(level, kMaxLogLevel), std::memory_order_relaxed);
}

uint32_t host::logClassLevel(uint32_t logClass)
{
    return logClass < kLogClasses ? g_classLevels[logClass].load(std::memory_order_relaxed) : kUnknownClassLevel;
}

void host::setLogClassLevel(uint32_t logClass, uint32_t level)
{
    if (logClass < kLogClasses) {
        g_classLevels[logClass].store(std::min(level, kMaxLogLevel), std::memory_order_relaxed);
    }
}

std::array<uint64_t, host::kMaxLogLevel + 1> host::logLineCounts()
{
    std::array<uint64_t, kMaxLogLevel + 1> counts{};
    std::ranges::transform(g_lineCounts, counts.begin(),
                           [](const auto &count) { return count.load(std::memory_order_relaxed); });
    return counts;
}

namespace {

thread_local host::OwnLogLines *t_onlooker = nullptr;

} // namespace

host::OwnLogLines::OwnLogLines()
{
    t_onlooker = this;
}

host::OwnLogLines::~OwnLogLines()
{
    t_onlooker = nullptr;
}

std::string host::OwnLogLines::last() const
{
    return last_;
}

void host::keepOwnLine(std::string_view text)
{
    if (t_onlooker != nullptr) {
        t_onlooker->last_ = text;
    }
}

// Most lines are dropped, so nothing comes before the comparison. errno is left alone: callers log it afterwards.
void kvlog(uint32_t module, uint32_t level, const char *file, uint32_t line, const char *func, uint32_t /*zero*/,
           const char *format, ...)
{
    if (level > g_threshold.load(std::memory_order_relaxed)) {
        return;
    }
    const int keptErrno = errno;
    va_list args;
    va_start(args, format);
    try {
        const Text text(format, args);
        host::keepOwnLine(text.view());
        write({module, level, file, line, func}, text.view());
    } catch (const std::exception &) {
        // Short of memory: the record is lost, the caller goes on.
        std::fputs("nasctrld: a log record was lost\n", stderr);
    }
    va_end(args);
    errno = keptErrno;
}

uint32_t nas_log_map_get(uint32_t log_class)
{
    return host::logClassLevel(log_class);
}
