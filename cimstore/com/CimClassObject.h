// IWbemClassObject over a copy of one class or instance of the repository.
#pragma once

#include "cimstore/CimInstance.h"
#include "cimstore/com/ComBase.h"

#include <wbemcli.h>

#include <mutex>
#include <optional>

namespace cimstore::com {

// Lets the store recognise its own objects behind an IWbemClassObject pointer.
extern const IID IID_CimStoreObject;

class CimClassObject final : public IWbemClassObject, private CountedObject {
    CIMSTORE_IMPLEMENT_REFCOUNT()

public:
    static HRESULT CreateForInstance(CimInstance instance, IWbemClassObject** ppObject);
    static HRESULT CreateForClass(CimClassPtr cls, IWbemClassObject** ppObject);
    // The object behind pUnknown when it is one of ours, with a reference; else null.
    static CimClassObject* FromUnknown(IUnknown* pUnknown);

    bool IsClass() const { return !m_instance.has_value(); }
    CimInstance InstanceCopy() const;
    CimClassPtr ClassPtr() const { return m_class; }

    // Qualifier access for the qualifier set objects; pwsProperty null means the object's own.
    HRESULT QualifierGet(const std::wstring* pwsProperty, const wchar_t* wszName, VARIANT* pVal, long* plFlavor);
    HRESULT QualifierPut(const std::wstring* pwsProperty, const wchar_t* wszName, const VARIANT* pVal, long lFlavor);
    HRESULT QualifierDelete(const std::wstring* pwsProperty, const wchar_t* wszName);
    HRESULT QualifierList(const std::wstring* pwsProperty, std::vector<CimQualifier>& out);

    // IUnknown
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;

    // IWbemClassObject
    HRESULT STDMETHODCALLTYPE GetQualifierSet(IWbemQualifierSet** ppQualSet) override;
    HRESULT STDMETHODCALLTYPE Get(LPCWSTR wszName, long lFlags, VARIANT* pVal, CIMTYPE* pType,
                                  long* plFlavor) override;
    HRESULT STDMETHODCALLTYPE Put(LPCWSTR wszName, long lFlags, VARIANT* pVal, CIMTYPE Type) override;
    HRESULT STDMETHODCALLTYPE Delete(LPCWSTR wszName) override;
    HRESULT STDMETHODCALLTYPE GetNames(LPCWSTR wszQualifierName, long lFlags, VARIANT* pQualifierVal,
                                       SAFEARRAY** pNames) override;
    HRESULT STDMETHODCALLTYPE BeginEnumeration(long lEnumFlags) override;
    HRESULT STDMETHODCALLTYPE Next(long lFlags, BSTR* strName, VARIANT* pVal, CIMTYPE* pType,
                                   long* plFlavor) override;
    HRESULT STDMETHODCALLTYPE EndEnumeration() override;
    HRESULT STDMETHODCALLTYPE GetPropertyQualifierSet(LPCWSTR wszProperty, IWbemQualifierSet** ppQualSet) override;
    HRESULT STDMETHODCALLTYPE Clone(IWbemClassObject** ppCopy) override;
    HRESULT STDMETHODCALLTYPE GetObjectText(long lFlags, BSTR* pstrObjectText) override;
    HRESULT STDMETHODCALLTYPE SpawnDerivedClass(long lFlags, IWbemClassObject** ppNewClass) override;
    HRESULT STDMETHODCALLTYPE SpawnInstance(long lFlags, IWbemClassObject** ppNewInstance) override;
    HRESULT STDMETHODCALLTYPE CompareTo(long lFlags, IWbemClassObject* pCompareTo) override;
    HRESULT STDMETHODCALLTYPE GetPropertyOrigin(LPCWSTR wszName, BSTR* pstrClassName) override;
    HRESULT STDMETHODCALLTYPE InheritsFrom(LPCWSTR strAncestor) override;
    HRESULT STDMETHODCALLTYPE GetMethod(LPCWSTR wszName, long lFlags, IWbemClassObject** ppInSignature,
                                        IWbemClassObject** ppOutSignature) override;
    HRESULT STDMETHODCALLTYPE PutMethod(LPCWSTR wszName, long lFlags, IWbemClassObject* pInSignature,
                                        IWbemClassObject* pOutSignature) override;
    HRESULT STDMETHODCALLTYPE DeleteMethod(LPCWSTR wszName) override;
    HRESULT STDMETHODCALLTYPE BeginMethodEnumeration(long lEnumFlags) override;
    HRESULT STDMETHODCALLTYPE NextMethod(long lFlags, BSTR* pstrName, IWbemClassObject** ppInSignature,
                                         IWbemClassObject** ppOutSignature) override;
    HRESULT STDMETHODCALLTYPE EndMethodEnumeration() override;
    HRESULT STDMETHODCALLTYPE GetMethodQualifierSet(LPCWSTR wszMethod, IWbemQualifierSet** ppQualSet) override;
    HRESULT STDMETHODCALLTYPE GetMethodOrigin(LPCWSTR wszMethodName, BSTR* pstrClassName) override;

private:
    CimClassObject(CimClassPtr cls, std::optional<CimInstance> instance);
    ~CimClassObject() = default;
    // Value, type and flavor of a property or system property, under the lock.
    HRESULT GetLocked(std::wstring_view wsName, VARIANT* pVal, CIMTYPE* pType, long* plFlavor) const;
    std::vector<std::wstring> SelectNames(long lFlags) const;
    HRESULT FaultFor(const wchar_t* wszMethod) const;

    mutable std::mutex m_mutex;
    CimClassPtr m_class;
    std::optional<CimInstance> m_instance;
    std::vector<std::wstring> m_enumNames;
    size_t m_enumPosition = 0;
    bool m_bEnumerating = false;
};

}  // namespace cimstore::com
