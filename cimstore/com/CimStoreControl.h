// Control functions exported by CimStore.dll for tests and tools.
#pragma once

#include <windows.h>
#include <oleauto.h>

#ifdef CIMSTORE_BUILDING
#define CIMSTORE_API extern "C" __declspec(dllexport)
#else
#define CIMSTORE_API extern "C" __declspec(dllimport)
#endif

// {B7C3E9A2-5D41-4F6B-8E0A-3C9D2F1A7B64}: CimStore's own locator class.
CIMSTORE_API const CLSID CLSID_CimStoreLocator;

// Compiles MOF into the running repository (all or nothing); on failure the buffer receives
// "file:line:column: message". wszNamespace is where declarations land without a #pragma namespace.
CIMSTORE_API HRESULT WINAPI CimStoreLoadMofText(const wchar_t* wszText, const wchar_t* wszFileName,
                                               const wchar_t* wszNamespace, wchar_t* wszError, DWORD cchError);
CIMSTORE_API HRESULT WINAPI CimStoreLoadMofFile(const wchar_t* wszPath, const wchar_t* wszNamespace,
                                               wchar_t* wszError, DWORD cchError);
// Replaces the repository by the .mof files of a folder (state.mof last); later changes persist there.
CIMSTORE_API HRESULT WINAPI CimStoreLoadRepository(const wchar_t* wszFolder, wchar_t* wszError, DWORD cchError);
// Empty repository, no folder, no faults, no context records.
CIMSTORE_API HRESULT WINAPI CimStoreReset();
CIMSTORE_API HRESULT WINAPI CimStoreSave();
// MOF of a namespace's instances (and classes when bClasses); the caller frees the BSTR.
CIMSTORE_API HRESULT WINAPI CimStoreSerializeNamespace(const wchar_t* wszNamespace, BOOL bClasses, BSTR* pbstrText);
// COM objects of this DLL alive now.
CIMSTORE_API LONG WINAPI CimStoreLiveObjects();

// Fails matching store calls with hr: wszMethod (null: any) is "GetObject", "ExecQuery", "Next",
// "Get", "Put", ...; wszTarget (null: any) a class, path, query or namespace; lNth 0 fails every
// matching call, n only the n-th.
CIMSTORE_API HRESULT WINAPI CimStoreInjectFault(const wchar_t* wszMethod, const wchar_t* wszTarget, LONG lNth,
                                               HRESULT hr);
// Removes every fault and restarts the call count.
CIMSTORE_API HRESULT WINAPI CimStoreClearFaults();
CIMSTORE_API LONG WINAPI CimStoreCallCount();
// Starts (bOn) or stops recording every store call; either clears the records.
CIMSTORE_API HRESULT WINAPI CimStoreRecordCalls(BOOL bOn);
// The recorded calls, one line each: method, namespace (empty for calls on objects and
// enumerators) and the targets faults match, separated by tabs. The caller frees the BSTR.
CIMSTORE_API HRESULT WINAPI CimStoreGetCallRecords(BSTR* pbstrRecords);

// The class through which the last locator was created (CLSID_WbemLocator,
// CLSID_WbemAdministrativeLocator or CimStore's own); GUID_NULL before the first.
CIMSTORE_API HRESULT WINAPI CimStoreLastLocatorClass(CLSID* pClsid);

// Context values received with each call, in call order.
CIMSTORE_API LONG WINAPI CimStoreContextRecordCount();
// The method of record lIndex and the value named wszName (WBEM_E_NOT_FOUND when the call
// brought no such value, E_INVALIDARG for an index out of range).
CIMSTORE_API HRESULT WINAPI CimStoreGetContextRecord(LONG lIndex, const wchar_t* wszName, wchar_t* wszMethod,
                                                    DWORD cchMethod, wchar_t* wszValue, DWORD cchValue);
CIMSTORE_API HRESULT WINAPI CimStoreClearContextRecords();
