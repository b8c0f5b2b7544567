#include "cimstore/com/CimStoreControl.h"

#include "cimstore/com/ComBase.h"
#include "cimstore/com/StoreState.h"

#include <cwchar>

using cimstore::com::StoreState;

namespace {

void CopyText(const std::wstring& wsText, wchar_t* wszBuffer, DWORD cchBuffer)
{
    if (!wszBuffer || cchBuffer == 0)
        return;
    const size_t cch = wsText.size() < cchBuffer - 1 ? wsText.size() : cchBuffer - 1;
    wmemcpy(wszBuffer, wsText.data(), cch);
    wszBuffer[cch] = L'\0';
}

HRESULT Report(const cimstore::MofResult& result, wchar_t* wszError, DWORD cchError)
{
    CopyText(FAILED(result.hr) ? result.message : std::wstring(), wszError, cchError);
    return result.hr;
}

}  // namespace

HRESULT WINAPI CimStoreLoadMofText(const wchar_t* wszText, const wchar_t* wszFileName, const wchar_t* wszNamespace,
                                   wchar_t* wszError, DWORD cchError)
{
    if (!wszText)
        return E_INVALIDARG;
    return CatchHr([&] {
        return Report(StoreState::Get().Repository().CompileText(wszText, wszFileName ? wszFileName : L"(text)",
                                                                 wszNamespace ? wszNamespace : L"root\\default"),
                      wszError, cchError);
    });
}

HRESULT WINAPI CimStoreLoadMofFile(const wchar_t* wszPath, const wchar_t* wszNamespace, wchar_t* wszError,
                                   DWORD cchError)
{
    if (!wszPath)
        return E_INVALIDARG;
    return CatchHr([&] {
        return Report(StoreState::Get().Repository().CompileFile(wszPath, wszNamespace ? wszNamespace
                                                                                         : L"root\\default"),
                      wszError, cchError);
    });
}

HRESULT WINAPI CimStoreLoadRepository(const wchar_t* wszFolder, wchar_t* wszError, DWORD cchError)
{
    if (!wszFolder)
        return E_INVALIDARG;
    return CatchHr([&] {
        StoreState::Get().Repository();  // the configured folder first, so it cannot replace this one later
        return Report(StoreState::Get().LoadFolder(wszFolder), wszError, cchError);
    });
}

HRESULT WINAPI CimStoreReset()
{
    return CatchHr([] {
        StoreState::Get().Reset();
        return S_OK;
    });
}

HRESULT WINAPI CimStoreSave()
{
    return CatchHr([] { return StoreState::Get().Save(); });
}

HRESULT WINAPI CimStoreSerializeNamespace(const wchar_t* wszNamespace, BOOL bClasses, BSTR* pbstrText)
{
    if (!wszNamespace || !pbstrText)
        return E_INVALIDARG;
    *pbstrText = nullptr;
    return CatchHr([&] {
        std::wstring wsText;
        const HRESULT hr = StoreState::Get().Repository().SerializeNamespace(wszNamespace, bClasses != FALSE, wsText);
        if (FAILED(hr))
            return hr;
        *pbstrText = SysAllocStringLen(wsText.data(), static_cast<UINT>(wsText.size()));
        return *pbstrText ? S_OK : E_OUTOFMEMORY;
    });
}

LONG WINAPI CimStoreLiveObjects()
{
    return cimstore::com::LiveObjects();
}

HRESULT WINAPI CimStoreInjectFault(const wchar_t* wszMethod, const wchar_t* wszTarget, LONG lNth, HRESULT hr)
{
    if (lNth < 0 || SUCCEEDED(hr))
        return E_INVALIDARG;
    return CatchHr([&] {
        cimstore::com::FaultRule rule;
        rule.method = wszMethod ? wszMethod : L"";
        rule.target = wszTarget ? wszTarget : L"";
        rule.nth = lNth;
        rule.hr = hr;
        StoreState::Get().AddFault(std::move(rule));
        return S_OK;
    });
}

HRESULT WINAPI CimStoreClearFaults()
{
    return CatchHr([] {
        StoreState::Get().ClearFaults();
        return S_OK;
    });
}

LONG WINAPI CimStoreCallCount()
{
    return StoreState::Get().CallCount();
}

HRESULT WINAPI CimStoreLastLocatorClass(CLSID* pClsid)
{
    if (!pClsid)
        return E_INVALIDARG;
    *pClsid = StoreState::Get().LastLocatorClass();
    return S_OK;
}

HRESULT WINAPI CimStoreRecordCalls(BOOL bOn)
{
    return CatchHr([&] {
        StoreState::Get().RecordCalls(bOn != FALSE);
        return S_OK;
    });
}

HRESULT WINAPI CimStoreGetCallRecords(BSTR* pbstrRecords)
{
    if (!pbstrRecords)
        return E_POINTER;
    *pbstrRecords = nullptr;
    return CatchHr([&] {
        std::wstring wsText;
        for (const cimstore::com::CallRecord& record : StoreState::Get().CallRecords()) {
            wsText += record.method + L"\t" + record.wsNamespace;
            for (const std::wstring& wsTarget : record.targets)
                wsText += L"\t" + wsTarget;
            wsText += L"\n";
        }
        *pbstrRecords = SysAllocStringLen(wsText.data(), static_cast<UINT>(wsText.size()));
        return *pbstrRecords ? S_OK : E_OUTOFMEMORY;
    });
}

LONG WINAPI CimStoreContextRecordCount()
{
    try {
        return static_cast<LONG>(StoreState::Get().ContextRecords().size());
    } catch (...) {
        return -1;
    }
}

HRESULT WINAPI CimStoreGetContextRecord(LONG lIndex, const wchar_t* wszName, wchar_t* wszMethod, DWORD cchMethod,
                                        wchar_t* wszValue, DWORD cchValue)
{
    return CatchHr([&] {
        const std::vector<cimstore::com::ContextRecord> records = StoreState::Get().ContextRecords();
        if (lIndex < 0 || static_cast<size_t>(lIndex) >= records.size())
            return E_INVALIDARG;
        const cimstore::com::ContextRecord& record = records[static_cast<size_t>(lIndex)];
        CopyText(record.method, wszMethod, cchMethod);
        CopyText(std::wstring(), wszValue, cchValue);
        if (!wszName)
            return S_OK;
        for (const auto& [wsName, wsValue] : record.values) {
            if (_wcsicmp(wsName.c_str(), wszName) == 0) {
                CopyText(wsValue, wszValue, cchValue);
                return S_OK;
            }
        }
        return cimstore::Hr(WBEM_E_NOT_FOUND);
    });
}

HRESULT WINAPI CimStoreClearContextRecords()
{
    return CatchHr([] {
        StoreState::Get().ClearContextRecords();
        return S_OK;
    });
}
