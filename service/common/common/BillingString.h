// BillingString.h - C memory and string functions that accept null pointers: they log an error then.
#pragma once

#include <string>

/// Every function checks its pointers first, destination before source. For a null pointer it logs an
/// error and does not make the C call. Thread: any.
class BillingMem {
public:
    BillingMem() = delete;

    static void Set(void* dest, int c, unsigned long n);
    /// @return as memcmp; 0, as for equal bytes, when a pointer is null
    static int Diff(const void* dest, const void* source, unsigned long n);
    static void Copy(void* dest, const void* source, unsigned long n);
    /// Copies n bytes; the two ranges may overlap.
    static void Move(void* dest, const void* source, unsigned long n);
};

/// The same for texts that end with NUL.
class BillingString {
public:
    BillingString() = delete;

    /// Appends at most n characters and a NUL.
    static void Concate(char* dest, const char* source, unsigned long n);
    /// Compares the beginning of dest with source.
    /// @return 0 when dest starts with source or a pointer is null; else as strncmp
    static int Diff(const char* dest, const char* source);
    /// Compares at most n characters.
    /// @return as strncmp; 0 when a pointer is null
    static int Diff(const char* dest, const char* source, unsigned long n);
    /// Copies as strncpy: pads a shorter source with NUL bytes, cuts a longer one without a final NUL.
    static void Copy(char* dest, const char* source, unsigned long n);
    /// @return length in bytes; 0 for null
    static unsigned long Length(const char* str);
    /// @return the first c in the text; null when there is none
    static const char* Char(const char* str, char c);
    /// Prints into a buffer of size bytes, including the NUL; a size below 1 writes nothing.
    /// @return length of the whole text, also when it was cut; negative when the format failed; 0 for null
    static int Snprintf(char* str, int size, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    /// Converts a decimal number up to the first other character, limited to the type's range; 0 for null.
    static long Integer(const char* str);
    static unsigned long UlInteger(const char* str);
    static std::string IntegerToString(int i);
    static std::string LLongToString(long long ll);
};
