#include "cimstore/com/CimEnumerator.h"

#include "cimstore/com/CimClassObject.h"
#include "cimstore/com/StoreState.h"

#include <wrl/client.h>

namespace cimstore::com {

namespace {

bool ValidTimeout(long lTimeout)
{
    return lTimeout >= 0 || lTimeout == static_cast<long>(WBEM_INFINITE);
}

}  // namespace

CimEnumerator::CimEnumerator(Results results, std::wstring wsSubject, size_t position)
    : m_results(std::move(results)), m_wsSubject(std::move(wsSubject)), m_position(position)
{
}

HRESULT CimEnumerator::Create(std::vector<CimInstance> results, std::wstring wsSubject, IEnumWbemClassObject** ppEnum)
{
    return CatchHr([&] {
        *ppEnum = new CimEnumerator(std::make_shared<const std::vector<CimInstance>>(std::move(results)),
                                    std::move(wsSubject), 0);
        return S_OK;
    });
}

HRESULT CimEnumerator::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IEnumWbemClassObject) {
        *ppv = static_cast<IEnumWbemClassObject*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

HRESULT CimEnumerator::Reset()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_position = 0;
    return S_OK;
}

HRESULT CimEnumerator::Next(long lTimeout, ULONG uCount, IWbemClassObject** apObjects, ULONG* puReturned)
{
    if (!apObjects || !puReturned || !ValidTimeout(lTimeout))
        return Hr(WBEM_E_INVALID_PARAMETER);
    *puReturned = 0;
    return CatchHr([&] {
        const HRESULT hr = StoreState::Get().CheckFault(L"Next", {m_wsSubject});
        if (FAILED(hr))
            return hr;
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<Microsoft::WRL::ComPtr<IWbemClassObject>> created;
        for (size_t i = m_position; created.size() < uCount && i < m_results->size(); ++i) {
            Microsoft::WRL::ComPtr<IWbemClassObject> pObject;
            const HRESULT hrCreate = CimClassObject::CreateForInstance((*m_results)[i], pObject.GetAddressOf());
            if (FAILED(hrCreate))
                return hrCreate;
            created.push_back(std::move(pObject));
        }
        for (size_t i = 0; i < created.size(); ++i)
            apObjects[i] = created[i].Detach();
        m_position += created.size();
        *puReturned = static_cast<ULONG>(created.size());
        return created.size() == uCount ? S_OK : Hr(WBEM_S_FALSE);
    });
}

HRESULT CimEnumerator::NextAsync(ULONG, IWbemObjectSink*)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimEnumerator::Clone(IEnumWbemClassObject** ppEnum)
{
    if (!ppEnum)
        return Hr(WBEM_E_INVALID_PARAMETER);
    *ppEnum = nullptr;
    return CatchHr([&] {
        std::lock_guard<std::mutex> lock(m_mutex);
        *ppEnum = new CimEnumerator(m_results, m_wsSubject, m_position);
        return S_OK;
    });
}

HRESULT CimEnumerator::Skip(long lTimeout, ULONG nCount)
{
    if (!ValidTimeout(lTimeout))
        return Hr(WBEM_E_INVALID_PARAMETER);
    std::lock_guard<std::mutex> lock(m_mutex);
    const size_t remaining = m_results->size() - m_position;
    if (nCount > remaining) {
        m_position = m_results->size();
        return Hr(WBEM_S_FALSE);
    }
    m_position += nCount;
    return S_OK;
}

}  // namespace cimstore::com
