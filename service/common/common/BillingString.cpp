// BillingString.cpp - each function checks its pointers and then makes the C call.
#include "BillingString.h"

#include "BillingLog.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

void BillingMem::Set(void* dest, int c, unsigned long n)
{
    BILLING_RETURN_IF(dest == NULL);
    std::memset(dest, c, n);
}

int BillingMem::Diff(const void* dest, const void* source, unsigned long n)
{
    BILLING_RETURN_IF(dest == NULL, 0);
    BILLING_RETURN_IF(source == NULL, 0);
    return std::memcmp(dest, source, n);
}

void BillingMem::Copy(void* dest, const void* source, unsigned long n)
{
    BILLING_RETURN_IF(dest == NULL);
    BILLING_RETURN_IF(source == NULL);
    std::memcpy(dest, source, n);
}

void BillingMem::Move(void* dest, const void* source, unsigned long n)
{
    BILLING_RETURN_IF(dest == NULL);
    BILLING_RETURN_IF(source == NULL);
    std::memmove(dest, source, n);
}

void BillingString::Concate(char* dest, const char* source, unsigned long n)
{
    BILLING_RETURN_IF(dest == NULL);
    BILLING_RETURN_IF(source == NULL);
    std::strncat(dest, source, n);
}

int BillingString::Diff(const char* dest, const char* source)
{
    BILLING_RETURN_IF(dest == NULL, 0);
    BILLING_RETURN_IF(source == NULL, 0);
    return std::strncmp(dest, source, std::strlen(source));
}

int BillingString::Diff(const char* dest, const char* source, unsigned long n)
{
    BILLING_RETURN_IF(dest == NULL, 0);
    BILLING_RETURN_IF(source == NULL, 0);
    return std::strncmp(dest, source, n);
}

void BillingString::Copy(char* dest, const char* source, unsigned long n)
{
    BILLING_RETURN_IF(dest == NULL);
    BILLING_RETURN_IF(source == NULL);
    std::strncpy(dest, source, n);
}

unsigned long BillingString::Length(const char* str)
{
    BILLING_RETURN_IF(str == NULL, 0);
    return std::strlen(str);
}

const char* BillingString::Char(const char* str, char c)
{
    BILLING_RETURN_IF(str == NULL, nullptr);
    return std::strchr(str, c);
}

int BillingString::Snprintf(char* str, int size, const char* format, ...)
{
    BILLING_RETURN_IF(str == NULL, 0);
    va_list arguments;
    va_start(arguments, format);
    // A negative size would convert to a huge unsigned one.
    const auto uSize = static_cast<std::size_t>(std::max(size, 0));
    const int iLength = std::vsnprintf(str, uSize, format, arguments);
    va_end(arguments);
    return iLength;
}

long BillingString::Integer(const char* str)
{
    BILLING_RETURN_IF(str == NULL, 0);
    return std::strtol(str, nullptr, 10);
}

unsigned long BillingString::UlInteger(const char* str)
{
    BILLING_RETURN_IF(str == NULL, 0);
    return std::strtoul(str, nullptr, 10);
}

std::string BillingString::IntegerToString(int i)
{
    char szText[128] = {};
    Snprintf(szText, sizeof szText, "%d", i);
    return szText;
}

std::string BillingString::LLongToString(long long ll)
{
    char szText[256] = {};
    Snprintf(szText, sizeof szText, "%lld", ll);
    return szText;
}
