/*
 * The shapes of the library's log lines, so that a call reads as its message. Every line begins "PROTOCOL: " and
 * carries the name of the function it stands in, unless it is logged under another name (the _AS forms).
 */
#ifndef NASCTRL_INTERNAL_LOG_H
#define NASCTRL_INTERNAL_LOG_H

#include <algorithm>
#include <cstring>
#include <nasctrl/host/log.h>

#define LOG_LINE_AS(func, level, format, ...)                                                                          \
    kvlog(NASCTRL_LOG_MODULE, (level), __FILE_NAME__, __LINE__, (func), 0,                                             \
          "PROTOCOL: " format __VA_OPT__(, ) __VA_ARGS__)
#define LOG_LINE(level, ...) LOG_LINE_AS(__func__, level, __VA_ARGS__)

#define LOG_ERROR(...) LOG_LINE(NASCTRL_LOG_ERROR, __VA_ARGS__)
#define LOG_PROGRESS(...) LOG_LINE(NASCTRL_LOG_PROGRESS, __VA_ARGS__)
#define LOG_INFO(...) LOG_LINE(NASCTRL_LOG_INFO, __VA_ARGS__)
/* A line whose level the host chooses by its class. */
#define LOG_CLASS_AS(func, log_class, ...) LOG_LINE_AS(func, nas_log_map_get(log_class), __VA_ARGS__)
#define LOG_CLASS(log_class, ...) LOG_CLASS_AS(__func__, log_class, __VA_ARGS__)

/* Argument checks: the argument's name, and the error that is returned. */
#define LOG_NULL_AS(func, name, error, value)                                                                          \
    LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "%s is NULL, return %s(%ld)!!!!!!!!!!!!", (name), (error),                    \
                static_cast<long>(value))
#define LOG_NULL(name, error, value) LOG_NULL_AS(__func__, name, error, value)
#define LOG_NULL_VOID(name) LOG_ERROR("%s is NULL, return !!!!!!!!!!!!", (name))

/* Failed steps: the text of the condition, and where the function goes on. */
#define LOG_FAILED_RETURN_AS(func, condition, result)                                                                  \
    LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "%s is failed, return %s!!!!!!!!!!!!", (condition), (result))
#define LOG_FAILED_RETURN(condition, result) LOG_FAILED_RETURN_AS(__func__, condition, result)
#define LOG_FAILED_GOTO_AS(func, condition, label)                                                                     \
    LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "%s is failed, goto %s!!!!!!!!!!!!", (condition), (label))
#define LOG_FAILED_GOTO(condition, label) LOG_FAILED_GOTO_AS(__func__, condition, label)
#define LOG_FAILED_CODE_GOTO_AS(func, condition, code, label)                                                          \
    LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "%s is failed(%ld), goto %s!!!!!!!!!!!!", (condition),                        \
                static_cast<long>(code), (label))
#define LOG_FAILED_CODE_GOTO(condition, code, label) LOG_FAILED_CODE_GOTO_AS(__func__, condition, code, label)

namespace nas {

/* The argument types of %llu and %lld. */
constexpr unsigned long long llu(unsigned long long value)
{
    return value;
}
constexpr long long lld(long long value)
{
    return value;
}

/* A text that a caller may have left null, for %s. */
constexpr const char *orNull(const char *text)
{
    return text != nullptr ? text : "(null)";
}

/* A fixed-width field from outside as a text for %s: cut to its width when it holds no NUL. */
template <size_t Width>
class CutText {
public:
    explicit CutText(const char *field)
    {
        const size_t length = strnlen(field, Width);
        std::copy_n(field, length, text_);
        text_[length] = '\0';
    }
    const char *c_str() const { return text_; }

private:
    char text_[Width + 1];
};

} // namespace nas

#endif
