// The type library embedded in this module as resource 1.
#pragma once

#include <windows.h>
#include <oleauto.h>

HRESULT LoadModuleTypeLib(ITypeLib** ppTypeLib);
HRESULT LoadModuleTypeInfo(REFGUID guid, ITypeInfo** ppTypeInfo);

// ITypeInfo::Invoke on pInterface. A by-value argument for a VARIANT* parameter (how script
// engines pass [in, out] arguments) is handed over by reference to a copy, because Wine's
// ITypeInfo::Invoke answers DISP_E_TYPEMISMATCH for it where Windows accepts it.
HRESULT InvokeThroughTypeInfo(ITypeInfo* pTypeInfo, IUnknown* pInterface, DISPID dispIdMember, WORD wFlags,
                              DISPPARAMS* pDispParams, VARIANT* pVarResult, EXCEPINFO* pExcepInfo, UINT* puArgErr);
