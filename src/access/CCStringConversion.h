// Holds one text, narrow or wide, and converts it in place to the form asked for.
#pragma once

#include <cstddef>

class CCStringConversion {
public:
    explicit CCStringConversion(const wchar_t* wszText);
    explicit CCStringConversion(const char* szText);
    virtual ~CCStringConversion();
    CCStringConversion(const CCStringConversion&) = delete;
    CCStringConversion& operator=(const CCStringConversion&) = delete;

    // Each returns the text in the asked form, or null when there is none or the
    // conversion failed (the object then keeps its former form). A pointer from a
    // former conversion is no longer valid after a conversion.
    const char* Convert2A();
    const wchar_t* Convert2W();
    operator const char*() { return Convert2A(); }
    operator const wchar_t*() { return Convert2W(); }

    bool IsWide() const { return m_bWide; }

private:
    void* m_pBuffer = nullptr;
    bool m_bWide = false;
};
