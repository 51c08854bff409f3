// BillingString.h - the C memory and string calls behind a guard: a null pointer is logged and
// survived.
#pragma once

#include <string>

/// Every function looks at its pointers first, destination before source. A null one is logged as
/// an error, and the C call is not made. Thread: any.
class BillingMem {
public:
    BillingMem() = delete;

    static void Set(void* dest, int c, unsigned long n);
    /// @return as memcmp; 0, as for equal bytes, when a pointer is null
    static int Diff(const void* dest, const void* source, unsigned long n);
    static void Copy(void* dest, const void* source, unsigned long n);
    /// The two may overlap.
    static void Move(void* dest, const void* source, unsigned long n);
};

/// The same for texts that end in NUL.
class BillingString {
public:
    BillingString() = delete;

    /// Appends at most n characters and a NUL.
    static void Concate(char* dest, const char* source, unsigned long n);
    /// Does dest start with source? @return 0 when it does, and when a pointer is null; else as
    /// strncmp
    static int Diff(const char* dest, const char* source);
    /// Compares at most n characters. @return as strncmp; 0 when a pointer is null
    static int Diff(const char* dest, const char* source, unsigned long n);
    /// Writes n bytes, NUL bytes behind a shorter source; a longer one is cut and gets no NUL.
    static void Copy(char* dest, const char* source, unsigned long n);
    /// @return 0 for null
    static unsigned long Length(const char* str);
    /// @return the first c in the text, null when there is none
    static const char* Char(const char* str, char c);
    /// Prints into size bytes, the NUL included; a size below 1 writes nothing.
    /// @return the length that the whole text has, negative when the format failed, 0 for null
    static int Snprintf(char* str, int size, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    /// Decimal numbers, read up to the first other character and bounded by the type; 0 for null.
    static long Integer(const char* str);
    static unsigned long UlInteger(const char* str);
    static std::string IntegerToString(int i);
    static std::string LLongToString(long long ll);
};
