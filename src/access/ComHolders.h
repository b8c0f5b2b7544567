// Minimal owners of automation values, so that no branch has to free them by hand.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <wrl/client.h>

#include <string_view>

// Hands an owned reference to a ComPtr without adding one. mingw-w64's ComPtr::Attach adds a
// reference (unlike the Windows SDK's), so code never calls Attach.
template <class T>
void TakeOwnership(Microsoft::WRL::ComPtr<T>& pTarget, T* pOwned)
{
    *pTarget.ReleaseAndGetAddressOf() = pOwned;
}

// Owns one BSTR.
class CCBstr {
public:
    CCBstr() = default;
    explicit CCBstr(const wchar_t* wsz) : m_bstr(wsz ? SysAllocString(wsz) : nullptr) {}
    // Keeps the text's length, embedded NULs included.
    explicit CCBstr(std::wstring_view ws) : m_bstr(SysAllocStringLen(ws.data(), static_cast<UINT>(ws.size()))) {}
    ~CCBstr() { Free(); }
    CCBstr(const CCBstr&) = delete;
    CCBstr& operator=(const CCBstr&) = delete;
    CCBstr(CCBstr&& other) noexcept : m_bstr(other.Detach()) {}
    CCBstr& operator=(CCBstr&& other) noexcept
    {
        if (this != &other)
            Attach(other.Detach());
        return *this;
    }

    BSTR Get() const { return m_bstr; }
    // Frees the current string first, so an out-parameter never leaks the old one.
    BSTR* GetAddress()
    {
        Free();
        return &m_bstr;
    }
    void Attach(BSTR bstr)
    {
        Free();
        m_bstr = bstr;
    }
    BSTR Detach()
    {
        BSTR bstr = m_bstr;
        m_bstr = nullptr;
        return bstr;
    }
    UINT Length() const { return m_bstr ? SysStringLen(m_bstr) : 0; }
    explicit operator bool() const { return m_bstr != nullptr; }

private:
    void Free()
    {
        if (m_bstr)
            SysFreeString(m_bstr);
        m_bstr = nullptr;
    }

    BSTR m_bstr = nullptr;
};

// Owns one VARIANT.
class CCVariant {
public:
    CCVariant() { VariantInit(&m_var); }
    ~CCVariant() { VariantClear(&m_var); }
    CCVariant(const CCVariant&) = delete;
    CCVariant& operator=(const CCVariant&) = delete;

    const VARIANT& Get() const { return m_var; }
    // The held value for an in-parameter or in-place change; ownership stays here.
    VARIANT* Ptr() { return &m_var; }
    // Clears the current value first, so an out-parameter never leaks the old one.
    VARIANT* GetAddress()
    {
        VariantClear(&m_var);
        return &m_var;
    }
    VARTYPE Type() const { return V_VT(&m_var); }
    void Clear() { VariantClear(&m_var); }
    // Takes ownership of a new BSTR copy of wsz.
    void SetText(const wchar_t* wsz)
    {
        VariantClear(&m_var);
        V_VT(&m_var) = VT_BSTR;
        V_BSTR(&m_var) = SysAllocString(wsz ? wsz : L"");
    }

private:
    VARIANT m_var;
};

// Owns one SAFEARRAY.
class CCSafeArray {
public:
    CCSafeArray() = default;
    explicit CCSafeArray(SAFEARRAY* psa) : m_psa(psa) {}
    ~CCSafeArray() { Attach(nullptr); }
    CCSafeArray(const CCSafeArray&) = delete;
    CCSafeArray& operator=(const CCSafeArray&) = delete;

    SAFEARRAY* Get() const { return m_psa; }
    SAFEARRAY** GetAddress()
    {
        Attach(nullptr);
        return &m_psa;
    }
    void Attach(SAFEARRAY* psa)
    {
        if (m_psa && m_psa != psa)
            SafeArrayDestroy(m_psa);
        m_psa = psa;
    }
    SAFEARRAY* Detach()
    {
        SAFEARRAY* psa = m_psa;
        m_psa = nullptr;
        return psa;
    }

private:
    SAFEARRAY* m_psa = nullptr;
};
