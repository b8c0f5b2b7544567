// IWbemLocator: namespaces of the repository are served by CimStore, every other one by
// the platform's own WMI.
#pragma once

#include "cimstore/com/ComBase.h"

#include <wbemcli.h>

namespace cimstore::com {

class CimLocator final : public IWbemLocator, private CountedObject {
    CIMSTORE_IMPLEMENT_REFCOUNT()

public:
    CimLocator() = default;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    HRESULT STDMETHODCALLTYPE ConnectServer(const BSTR strNetworkResource, const BSTR strUser,
                                            const BSTR strPassword, const BSTR strLocale, long lSecurityFlags,
                                            const BSTR strAuthority, IWbemContext* pCtx,
                                            IWbemServices** ppNamespace) override;

private:
    ~CimLocator() = default;
};

}  // namespace cimstore::com
