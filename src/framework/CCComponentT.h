// The component as a COM object sees it: forwards the feature identity it is given
// (as BSTRs) to the module's component object and answers through it.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <string>

template <class T>
class CCComponentT {
public:
    explicit CCComponentT(T& component) : m_pComponent(&component) {}

    bool Initialize(const char* szFeatureName, const char* szFeatureVersion, const char* szContextName)
    {
        return m_pComponent->Initialize(szFeatureName, szFeatureVersion, szContextName);
    }

    // A null BSTR is an empty text, as in automation; never throws.
    bool Initialize(BSTR bstrFeatureName, BSTR bstrFeatureVersion, BSTR bstrContextName) noexcept
    {
        try {
            return Initialize(Narrow(bstrFeatureName).c_str(), Narrow(bstrFeatureVersion).c_str(),
                              Narrow(bstrContextName).c_str());
        } catch (...) {
            return false;
        }
    }

    T* Get() const { return m_pComponent; }
    T* operator->() const { return m_pComponent; }

private:
    static std::string Narrow(BSTR bstr)
    {
        const int cchSource = bstr ? static_cast<int>(SysStringLen(bstr)) : 0;
        if (cchSource == 0)
            return std::string();
        const int cch = WideCharToMultiByte(CP_ACP, 0, bstr, cchSource, nullptr, 0, nullptr, nullptr);
        if (cch <= 0)
            return std::string();
        std::string s(static_cast<size_t>(cch), '\0');
        WideCharToMultiByte(CP_ACP, 0, bstr, cchSource, s.data(), cch, nullptr, nullptr);
        return s;
    }

    T* m_pComponent;
};
