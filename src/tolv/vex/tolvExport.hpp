// Public header: what makes a declaration part of the library's interface.
#ifndef TOLV_VEX_TOLVEXPORT_HPP
#define TOLV_VEX_TOLVEXPORT_HPP

/// Marks a class, function or object that users of the shared library reach;
/// everything else is built with hidden visibility.
#define TOLV_EXPORT [[gnu::visibility("default")]]

/// Marks a class whose returned objects must be looked at. Empty before C++17,
/// where no attribute for it exists that every compiler takes.
#if __cplusplus >= 201703L
#define TOLV_NODISCARD [[nodiscard]]
#else
#define TOLV_NODISCARD
#endif

/// Lets the compiler check the arguments of a printf-like function: text is
/// the position of the format string, first that of its first argument, 0 when
/// they come as a va_list. In a member function `this` is number 1.
#define TOLV_PRINTF(text, first) __attribute__((format(printf, text, first)))

#endif
