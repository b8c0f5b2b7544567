#include "module/TypeLibrary.h"

#include "access/ComHolders.h"
#include "module/CMoradeldllModule.h"

#include <wrl/client.h>

#include <new>
#include <vector>

HRESULT LoadModuleTypeLib(ITypeLib** ppTypeLib)
{
    if (!ppTypeLib)
        return E_POINTER;
    *ppTypeLib = nullptr;
    const std::wstring wsPath = _Module.GetModulePath();
    if (wsPath.empty()) {
        const DWORD dwError = GetLastError();
        return dwError ? HRESULT_FROM_WIN32(dwError) : E_FAIL;
    }
    // REGKIND_NONE: loading must not register; registration is DllRegisterServer's job.
    return LoadTypeLibEx(wsPath.c_str(), REGKIND_NONE, ppTypeLib);
}

HRESULT LoadModuleTypeInfo(REFGUID guid, ITypeInfo** ppTypeInfo)
{
    if (!ppTypeInfo)
        return E_POINTER;
    *ppTypeInfo = nullptr;
    Microsoft::WRL::ComPtr<ITypeLib> pTypeLib;
    HRESULT hr = LoadModuleTypeLib(pTypeLib.GetAddressOf());
    if (FAILED(hr))
        return hr;
    return pTypeLib->GetTypeInfoOfGuid(guid, ppTypeInfo);
}

namespace {

// The function description of a dispatch id; released with the holder.
class CCFuncDesc {
public:
    CCFuncDesc(ITypeInfo* pTypeInfo, DISPID dispId) : m_pTypeInfo(pTypeInfo)
    {
        TYPEATTR* pAttr = nullptr;
        if (FAILED(pTypeInfo->GetTypeAttr(&pAttr)))
            return;
        const WORD cFuncs = pAttr->cFuncs;
        pTypeInfo->ReleaseTypeAttr(pAttr);
        for (UINT i = 0; i < cFuncs && !m_pDesc; ++i) {
            FUNCDESC* pDesc = nullptr;
            if (FAILED(pTypeInfo->GetFuncDesc(i, &pDesc)))
                continue;
            if (pDesc->memid == dispId)
                m_pDesc = pDesc;
            else
                pTypeInfo->ReleaseFuncDesc(pDesc);
        }
    }
    ~CCFuncDesc()
    {
        if (m_pDesc)
            m_pTypeInfo->ReleaseFuncDesc(m_pDesc);
    }
    CCFuncDesc(const CCFuncDesc&) = delete;
    CCFuncDesc& operator=(const CCFuncDesc&) = delete;
    const FUNCDESC* Get() const { return m_pDesc; }

private:
    ITypeInfo* m_pTypeInfo;
    FUNCDESC* m_pDesc = nullptr;
};

bool IsVariantPointer(const ELEMDESC& elem)
{
    return elem.tdesc.vt == VT_PTR && elem.tdesc.lptdesc && elem.tdesc.lptdesc->vt == VT_VARIANT;
}

}  // namespace

HRESULT InvokeThroughTypeInfo(ITypeInfo* pTypeInfo, IUnknown* pInterface, DISPID dispIdMember, WORD wFlags,
                              DISPPARAMS* pDispParams, VARIANT* pVarResult, EXCEPINFO* pExcepInfo, UINT* puArgErr)
{
    try {
        if (!pDispParams || pDispParams->cArgs == 0 || pDispParams->cNamedArgs != 0)
            return pTypeInfo->Invoke(pInterface, dispIdMember, wFlags, pDispParams, pVarResult, pExcepInfo, puArgErr);
        const CCFuncDesc desc(pTypeInfo, dispIdMember);
        const UINT cArgs = pDispParams->cArgs;
        std::vector<VARIANT> args(pDispParams->rgvarg, pDispParams->rgvarg + cArgs);
        std::vector<CCVariant> copies(cArgs);
        bool bChanged = false;
        const UINT cParams = desc.Get() ? static_cast<UINT>(desc.Get()->cParams) : 0;
        for (UINT iParam = 0; iParam < cParams && iParam < cArgs; ++iParam) {
            // Arguments arrive in reverse order.
            VARIANT& arg = args[cArgs - 1 - iParam];
            if (!IsVariantPointer(desc.Get()->lprgelemdescParam[iParam]) || (V_VT(&arg) & VT_BYREF))
                continue;
            CCVariant& copy = copies[cArgs - 1 - iParam];
            const HRESULT hr = VariantCopy(copy.Ptr(), &arg);
            if (FAILED(hr))
                return hr;
            V_VT(&arg) = VT_VARIANT | VT_BYREF;
            V_VARIANTREF(&arg) = copy.Ptr();
            bChanged = true;
        }
        if (!bChanged)
            return pTypeInfo->Invoke(pInterface, dispIdMember, wFlags, pDispParams, pVarResult, pExcepInfo, puArgErr);
        DISPPARAMS params = *pDispParams;
        params.rgvarg = args.data();
        return pTypeInfo->Invoke(pInterface, dispIdMember, wFlags, &params, pVarResult, pExcepInfo, puArgErr);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}
