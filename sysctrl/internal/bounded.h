/*
 * Bounded copies and prints with the meaning of C11 Annex K, over the installed bounds-checking library where that
 * agrees. All return 0, or a non-zero code and an empty or cleared destination; none prints or aborts.
 */
#ifndef NASCTRL_INTERNAL_BOUNDED_H
#define NASCTRL_INTERNAL_BOUNDED_H

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#undef memcpy_s
#undef memmove_s
#undef memset_s
#undef sprintf_s
#undef strcpy_s
#undef strncpy_s
#undef vsnprintf_s

namespace nas {

/* Copies n bytes; a destination of size 0 fails even for n 0. */
inline int memcpy_s(void *dest, size_t size, const void *src, size_t n)
{
    return size == 0 ? ESZEROL : _memcpy_s_chk(dest, size, src, n, BOS_UNKNOWN, BOS_UNKNOWN);
}

/* The same where the two may overlap. */
inline int memmove_s(void *dest, size_t size, const void *src, size_t n)
{
    return size == 0 ? ESZEROL : _memmove_s_chk(dest, size, src, n, BOS_UNKNOWN, BOS_UNKNOWN);
}

inline int memset_s(void *dest, size_t size, int value, size_t n)
{
    return size == 0 ? ESZEROL : _memset_s_chk(dest, size, value, n, BOS_UNKNOWN);
}

/* The installed library refuses text destinations above its own limit, which no text of ours comes near. */
constexpr size_t textDestination(size_t size)
{
    return std::min<size_t>(size, RSIZE_MAX_STR);
}

inline int strcpy_s(char *dest, size_t size, const char *src)
{
    return _strcpy_s_chk(dest, textDestination(size), src, BOS_UNKNOWN);
}

/* Cuts at n characters; fails when the result and its NUL do not fit. */
inline int strncpy_s(char *dest, size_t size, const char *src, size_t n)
{
    return _strncpy_s_chk(dest, textDestination(size), src, std::min<size_t>(n, RSIZE_MAX_STR), BOS_UNKNOWN,
                          BOS_UNKNOWN);
}

/* A signed buffer length as a destination size: 0 or less is no room at all. */
constexpr size_t destinationSize(long length)
{
    return length > 0 ? static_cast<size_t>(length) : 0;
}

/*
 * Prints into dest; text that does not fit is cut and stays terminated. Returns the length that the whole text has, or
 * a negative number when it cannot be printed.
 */
inline int vsnprintf_s(char *dest, size_t size, const char *format, va_list arguments)
{
    return vsnprintf(dest, size, format, arguments);
}

/*
 * Prints into dest; fails when the text and its NUL do not fit. Returns the text's length, or a negative number and an
 * empty dest.
 */
__attribute__((format(printf, 3, 4))) inline int sprintf_s(char *dest, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf_s(dest, size, format, arguments);
    va_end(arguments);
    if (length >= 0 && static_cast<size_t>(length) < size) {
        return length;
    }
    if (size > 0) {
        dest[0] = '\0';
    }
    return -1;
}

/*
 * Prints at the end of a table that is being built: room bytes are left at dest. Returns the number of characters
 * written, so that results can be added up (the room less one when the text was cut, 0 without any room), or the
 * print's negative result.
 */
__attribute__((format(printf, 3, 4))) inline int append(char *dest, size_t room, const char *format, ...)
{
    if (room == 0) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf_s(dest, room, format, arguments);
    va_end(arguments);
    return length >= 0 && static_cast<size_t>(length) >= room ? static_cast<int>(room - 1) : length;
}

} // namespace nas

#endif
