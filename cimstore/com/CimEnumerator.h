// IEnumWbemClassObject over a result that was copied out of the repository.
#pragma once

#include "cimstore/CimInstance.h"
#include "cimstore/com/ComBase.h"

#include <wbemcli.h>

#include <memory>
#include <mutex>

namespace cimstore::com {

class CimEnumerator final : public IEnumWbemClassObject, private CountedObject {
    CIMSTORE_IMPLEMENT_REFCOUNT()

public:
    // wsSubject names the class or query for fault injection.
    static HRESULT Create(std::vector<CimInstance> results, std::wstring wsSubject, IEnumWbemClassObject** ppEnum);

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    HRESULT STDMETHODCALLTYPE Reset() override;
    HRESULT STDMETHODCALLTYPE Next(long lTimeout, ULONG uCount, IWbemClassObject** apObjects,
                                   ULONG* puReturned) override;
    HRESULT STDMETHODCALLTYPE NextAsync(ULONG uCount, IWbemObjectSink* pSink) override;
    HRESULT STDMETHODCALLTYPE Clone(IEnumWbemClassObject** ppEnum) override;
    HRESULT STDMETHODCALLTYPE Skip(long lTimeout, ULONG nCount) override;

private:
    using Results = std::shared_ptr<const std::vector<CimInstance>>;
    CimEnumerator(Results results, std::wstring wsSubject, size_t position);
    ~CimEnumerator() = default;

    Results m_results;
    std::wstring m_wsSubject;
    std::mutex m_mutex;
    size_t m_position;
};

}  // namespace cimstore::com
