// IWbemServices over one namespace of the repository; reads of classes the repository does not
// define go to the platform's WMI. IClientSecurity so that CoSetProxyBlanket succeeds on it.
#pragma once

#include "cimstore/com/ComBase.h"
#include "cimstore/com/PlatformWmi.h"

#include <wbemcli.h>

#include <string>

namespace cimstore::com {

class CimServices final : public IWbemServices, public IClientSecurity, private CountedObject {
    CIMSTORE_IMPLEMENT_REFCOUNT()

public:
    static HRESULT Create(std::wstring wsNamespace, IWbemServices** ppServices);

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;

    // IClientSecurity
    HRESULT STDMETHODCALLTYPE QueryBlanket(IUnknown* pProxy, DWORD* pAuthnSvc, DWORD* pAuthzSvc,
                                           OLECHAR** pServerPrincName, DWORD* pAuthnLevel, DWORD* pImpLevel,
                                           void** pAuthInfo, DWORD* pCapabilities) override;
    HRESULT STDMETHODCALLTYPE SetBlanket(IUnknown* pProxy, DWORD dwAuthnSvc, DWORD dwAuthzSvc,
                                         OLECHAR* pServerPrincName, DWORD dwAuthnLevel, DWORD dwImpLevel,
                                         void* pAuthInfo, DWORD dwCapabilities) override;
    HRESULT STDMETHODCALLTYPE CopyProxy(IUnknown* pProxy, IUnknown** ppCopy) override;

    // IWbemServices
    HRESULT STDMETHODCALLTYPE OpenNamespace(const BSTR strNamespace, long lFlags, IWbemContext* pCtx,
                                            IWbemServices** ppWorkingNamespace, IWbemCallResult** ppResult) override;
    HRESULT STDMETHODCALLTYPE CancelAsyncCall(IWbemObjectSink* pSink) override;
    HRESULT STDMETHODCALLTYPE QueryObjectSink(long lFlags, IWbemObjectSink** ppResponseHandler) override;
    HRESULT STDMETHODCALLTYPE GetObject(const BSTR strObjectPath, long lFlags, IWbemContext* pCtx,
                                        IWbemClassObject** ppObject, IWbemCallResult** ppCallResult) override;
    HRESULT STDMETHODCALLTYPE GetObjectAsync(const BSTR strObjectPath, long lFlags, IWbemContext* pCtx,
                                             IWbemObjectSink* pResponseHandler) override;
    HRESULT STDMETHODCALLTYPE PutClass(IWbemClassObject* pObject, long lFlags, IWbemContext* pCtx,
                                       IWbemCallResult** ppCallResult) override;
    HRESULT STDMETHODCALLTYPE PutClassAsync(IWbemClassObject* pObject, long lFlags, IWbemContext* pCtx,
                                            IWbemObjectSink* pResponseHandler) override;
    HRESULT STDMETHODCALLTYPE DeleteClass(const BSTR strClass, long lFlags, IWbemContext* pCtx,
                                          IWbemCallResult** ppCallResult) override;
    HRESULT STDMETHODCALLTYPE DeleteClassAsync(const BSTR strClass, long lFlags, IWbemContext* pCtx,
                                               IWbemObjectSink* pResponseHandler) override;
    HRESULT STDMETHODCALLTYPE CreateClassEnum(const BSTR strSuperclass, long lFlags, IWbemContext* pCtx,
                                              IEnumWbemClassObject** ppEnum) override;
    HRESULT STDMETHODCALLTYPE CreateClassEnumAsync(const BSTR strSuperclass, long lFlags, IWbemContext* pCtx,
                                                   IWbemObjectSink* pResponseHandler) override;
    HRESULT STDMETHODCALLTYPE PutInstance(IWbemClassObject* pInst, long lFlags, IWbemContext* pCtx,
                                          IWbemCallResult** ppCallResult) override;
    HRESULT STDMETHODCALLTYPE PutInstanceAsync(IWbemClassObject* pInst, long lFlags, IWbemContext* pCtx,
                                               IWbemObjectSink* pResponseHandler) override;
    HRESULT STDMETHODCALLTYPE DeleteInstance(const BSTR strObjectPath, long lFlags, IWbemContext* pCtx,
                                             IWbemCallResult** ppCallResult) override;
    HRESULT STDMETHODCALLTYPE DeleteInstanceAsync(const BSTR strObjectPath, long lFlags, IWbemContext* pCtx,
                                                  IWbemObjectSink* pResponseHandler) override;
    HRESULT STDMETHODCALLTYPE CreateInstanceEnum(const BSTR strFilter, long lFlags, IWbemContext* pCtx,
                                                 IEnumWbemClassObject** ppEnum) override;
    HRESULT STDMETHODCALLTYPE CreateInstanceEnumAsync(const BSTR strFilter, long lFlags, IWbemContext* pCtx,
                                                      IWbemObjectSink* pResponseHandler) override;
    HRESULT STDMETHODCALLTYPE ExecQuery(const BSTR strQueryLanguage, const BSTR strQuery, long lFlags,
                                        IWbemContext* pCtx, IEnumWbemClassObject** ppEnum) override;
    HRESULT STDMETHODCALLTYPE ExecQueryAsync(const BSTR strQueryLanguage, const BSTR strQuery, long lFlags,
                                             IWbemContext* pCtx, IWbemObjectSink* pResponseHandler) override;
    HRESULT STDMETHODCALLTYPE ExecNotificationQuery(const BSTR strQueryLanguage, const BSTR strQuery, long lFlags,
                                                    IWbemContext* pCtx, IEnumWbemClassObject** ppEnum) override;
    HRESULT STDMETHODCALLTYPE ExecNotificationQueryAsync(const BSTR strQueryLanguage, const BSTR strQuery,
                                                         long lFlags, IWbemContext* pCtx,
                                                         IWbemObjectSink* pResponseHandler) override;
    HRESULT STDMETHODCALLTYPE ExecMethod(const BSTR strObjectPath, const BSTR strMethodName, long lFlags,
                                         IWbemContext* pCtx, IWbemClassObject* pInParams,
                                         IWbemClassObject** ppOutParams, IWbemCallResult** ppCallResult) override;
    HRESULT STDMETHODCALLTYPE ExecMethodAsync(const BSTR strObjectPath, const BSTR strMethodName, long lFlags,
                                              IWbemContext* pCtx, IWbemClassObject* pInParams,
                                              IWbemObjectSink* pResponseHandler) override;

private:
    explicit CimServices(std::wstring wsNamespace) : m_wsNamespace(std::move(wsNamespace)), m_platform(m_wsNamespace)
    {
    }
    ~CimServices() = default;
    HRESULT PutForeignInstance(IWbemClassObject* pInst);

    const std::wstring m_wsNamespace;
    PlatformNamespace m_platform;
};

}  // namespace cimstore::com
