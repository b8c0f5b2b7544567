// What a request costs per notification id beyond the store calls it makes. For every id of the
// handler's table: the request (GetInstances, then DeleteObsoleteInstances, through the vtable) on
// the example workstation and on a machine ten times its size; the floor, i.e. the store calls the
// request made (recorded by CimStore) replayed directly against CimStore; and the request again
// with tracing on at level 6. Usage: requests.exe <source root> [repetitions]; with "soak <n>"
// instead, n requests on one handler, for memory, handles and store objects left behind.
#include "access/ComHolders.h"
#include "cimstore/com/CimStoreControl.h"
#include "core/CNotificationHandler.h"
#include "MoradelModule.h"
#include "ProcessFootprint.h"

#include <windows.h>
#include <wbemidl.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kEventNamespace[] = L"root\\oxl1v2\\KM_Notification";
constexpr wchar_t kTraceKey[] = L"Software\\Tessaline Systems\\Common\\Tracing\\Moradel.dll\\1.06";
// One of each: a machine has one operating system, BIOS and cabinet.
const std::set<std::wstring> kSingletons = {L"Win32_OperatingSystem", L"COXL_BiosSettings", L"COXL_CabinetIntrusion",
                                            L"COXL_IntrusionSwitch"};

double Now()
{
    LARGE_INTEGER t;
    LARGE_INTEGER f;
    QueryPerformanceCounter(&t);
    QueryPerformanceFrequency(&f);
    return static_cast<double>(t.QuadPart) * 1e6 / static_cast<double>(f.QuadPart);
}

// Median of reps runs of body, in microseconds.
double MedianMicros(int iReps, const std::function<void()>& body)
{
    std::vector<double> times;
    for (int i = 0; i < iReps; ++i) {
        const double t0 = Now();
        body();
        times.push_back(Now() - t0);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

void Fail(const char* szWhat, HRESULT hr)
{
    std::fprintf(stderr, "requests: %s failed 0x%08lX\n", szWhat, static_cast<unsigned long>(hr));
    std::exit(2);
}

std::vector<std::wstring> MofFiles(const std::wstring& wsFolder)
{
    std::vector<std::wstring> files;
    WIN32_FIND_DATAW fd;
    HANDLE h = FindFirstFileW((wsFolder + L"\\*.mof").c_str(), &fd);
    if (h == INVALID_HANDLE_VALUE)
        return files;
    do
        files.push_back(wsFolder + L"\\" + fd.cFileName);
    while (FindNextFileW(h, &fd));
    FindClose(h);
    std::sort(files.begin(), files.end());
    return files;
}

ComPtr<IWbemServices> Connect(const wchar_t* wszNamespace)
{
    ComPtr<IWbemLocator> pLocator;
    HRESULT hr = CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                  reinterpret_cast<void**>(pLocator.GetAddressOf()));
    if (FAILED(hr))
        Fail("CoCreateInstance(WbemLocator)", hr);
    ComPtr<IWbemServices> pServices;
    CCBstr bstrNamespace(wszNamespace);
    hr = pLocator->ConnectServer(bstrNamespace.Get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                 pServices.GetAddressOf());
    if (FAILED(hr))
        Fail("ConnectServer", hr);
    return pServices;
}

// The copy k of a key value: "-k" after a text, and after every quoted key value of a reference,
// so that copies of associations point at copies of their ends.
std::wstring CopyKey(const std::wstring& wsValue, CIMTYPE type, int k)
{
    const std::wstring wsSuffix = L"-" + std::to_wstring(k);
    if (type == CIM_STRING)
        return wsValue + wsSuffix;
    static const std::wregex quoted(LR"re(=("(?:[^"\\]|\\.)*)")re");
    return std::regex_replace(wsValue, quoted, L"=$1" + wsSuffix + L"\"");
}

// Adds copies 1..iCopies of every instance of the namespace that is not one of a kind.
void Replicate(const wchar_t* wszNamespace, int iCopies)
{
    CCBstr bstrText;
    if (FAILED(CimStoreSerializeNamespace(wszNamespace, FALSE, bstrText.GetAddress())) || !bstrText)
        return;
    std::set<std::wstring> classes;
    static const std::wregex instanceOf(LR"(instance of (\w+))");
    const std::wstring wsText(bstrText.Get(), bstrText.Length());
    for (std::wsregex_iterator it(wsText.begin(), wsText.end(), instanceOf), end; it != end; ++it)
        if (!kSingletons.count((*it)[1].str()))
            classes.insert((*it)[1].str());
    ComPtr<IWbemServices> pServices = Connect(wszNamespace);
    for (const std::wstring& wsClass : classes) {
        ComPtr<IEnumWbemClassObject> pEnum;
        CCBstr bstrClass(wsClass.c_str());
        if (FAILED(pServices->CreateInstanceEnum(bstrClass.Get(), WBEM_FLAG_SHALLOW, nullptr, pEnum.GetAddressOf())))
            continue;
        std::vector<ComPtr<IWbemClassObject>> originals;
        for (;;) {
            ComPtr<IWbemClassObject> pObject;
            ULONG ulReturned = 0;
            if (pEnum->Next(WBEM_INFINITE, 1, pObject.GetAddressOf(), &ulReturned) != S_OK || !ulReturned)
                break;
            originals.push_back(pObject);
        }
        for (const ComPtr<IWbemClassObject>& pOriginal : originals) {
            for (int k = 1; k <= iCopies; ++k) {
                ComPtr<IWbemClassObject> pCopy;
                if (FAILED(pOriginal->Clone(pCopy.GetAddressOf())))
                    Fail("Clone", E_FAIL);
                pCopy->BeginEnumeration(WBEM_FLAG_KEYS_ONLY);
                CCBstr bstrName;
                CCVariant value;
                CIMTYPE type = 0;
                std::vector<std::pair<std::wstring, std::wstring>> keys;
                while (pCopy->Next(0, bstrName.GetAddress(), value.GetAddress(), &type, nullptr) == S_OK) {
                    if (V_VT(value.Ptr()) == VT_BSTR)
                        keys.emplace_back(bstrName.Get(), CopyKey(V_BSTR(value.Ptr()), type, k));
                    bstrName = CCBstr();
                    value.Clear();
                }
                pCopy->EndEnumeration();
                for (const auto& [wsName, wsValue] : keys) {
                    CCVariant copy;
                    copy.SetText(wsValue.c_str());
                    pCopy->Put(wsName.c_str(), 0, copy.Ptr(), 0);
                }
                const HRESULT hr = pServices->PutInstance(pCopy.Get(), WBEM_FLAG_CREATE_ONLY, nullptr, nullptr);
                if (FAILED(hr)) {
                    std::fprintf(stderr, "copy %d of a %ls\n", k, wsClass.c_str());
                    Fail("PutInstance", hr);
                }
            }
        }
    }
}

// The example workstation, or iScale times its devices, probes, disks, services and autostart entries.
void LoadMachine(const std::wstring& wsRoot, int iScale)
{
    if (FAILED(CimStoreReset()))
        Fail("CimStoreReset", E_FAIL);
    std::vector<std::wstring> files = MofFiles(wsRoot + L"\\schema");
    for (const std::wstring& wsFile : MofFiles(wsRoot + L"\\examples\\workstation"))
        if (wsFile.size() < 10 || wsFile.substr(wsFile.size() - 10) != L"change.mof")
            files.push_back(wsFile);
    for (const std::wstring& wsFile : files) {
        wchar_t wszError[1024] = {};
        const HRESULT hr = CimStoreLoadMofFile(wsFile.c_str(), L"root\\default", wszError, 1024);
        if (FAILED(hr)) {
            std::fprintf(stderr, "%ls\n", wszError);
            Fail("CimStoreLoadMofFile", hr);
        }
    }
    if (iScale > 1) {
        Replicate(L"root\\cimv2", iScale - 1);
        Replicate(L"root\\oxl1v2\\KM_Inventory", iScale - 1);
    }
}

ComPtr<INotifications> NewHandler(const MoradelModule& module)
{
    ComPtr<INotifications> pHandler;
    HRESULT hr = module.CreateHandler(pHandler);
    if (FAILED(hr))
        Fail("CreateHandler", hr);
    CCBstr bstrNamespace(kEventNamespace);
    ULONG ulReturn = 0;
    hr = pHandler->Initialize(bstrNamespace.Get(), &ulReturn);
    if (FAILED(hr))
        Fail("Initialize", hr);
    return pHandler;
}

// One request; the events it returned, for the agent's writes.
void Request(INotifications* pHandler, ULONG ulId, CCVariant* pEvents)
{
    ULONG ulReturn = 0;
    pHandler->GetInstances(ulId, pEvents->Ptr(), &ulReturn);
    pHandler->DeleteObsoleteInstances(ulId, &ulReturn);
}

// The agent's cycle: every id, and every event without NoPut written.
void AgentCycle(INotifications* pHandler, IWbemServices* pEvents)
{
    for (const CNotificationHandler::KindEntry& entry : CNotificationHandler::KindTable()) {
        CCVariant events;
        Request(pHandler, entry.ulNotfyId, &events);
        if (V_VT(events.Ptr()) != (VT_ARRAY | VT_UNKNOWN))
            continue;
        SAFEARRAY* psa = V_ARRAY(events.Ptr());
        LONG lLower = 0;
        LONG lUpper = -1;
        SafeArrayGetLBound(psa, 1, &lLower);
        SafeArrayGetUBound(psa, 1, &lUpper);
        for (LONG i = lLower; i <= lUpper; ++i) {
            ComPtr<IUnknown> pUnknown;
            ComPtr<IWbemClassObject> pEvent;
            if (FAILED(SafeArrayGetElement(psa, &i, pUnknown.GetAddressOf())) || !pUnknown ||
                FAILED(pUnknown.As(&pEvent)))
                continue;
            ComPtr<IWbemQualifierSet> pQualifiers;
            CCVariant noPut;
            if (SUCCEEDED(pEvent->GetQualifierSet(pQualifiers.GetAddressOf())) &&
                SUCCEEDED(pQualifiers->Get(L"NoPut", 0, noPut.GetAddress(), nullptr)))
                continue;
            pEvents->PutInstance(pEvent.Get(), WBEM_FLAG_CREATE_OR_UPDATE, nullptr, nullptr);
        }
    }
}

// The store calls of a request, replayed without the module: the same methods on the same
// namespaces, paths, queries, classes and properties, with a context of three values as the
// module's. A Put writes VT_NULL; writes of instances are not the request's (the agent makes
// them) and are left out.
class Replay {
public:
    explicit Replay(const std::wstring& wsRecords)
    {
        CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                         reinterpret_cast<void**>(m_pLocator.GetAddressOf()));
        // The module hands its feature identity to every call; the store reads it each time.
        CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemContext,
                         reinterpret_cast<void**>(m_pContext.GetAddressOf()));
        for (const wchar_t* wszName : {L"FeatureName", L"FeatureVersion", L"ContextName"}) {
            CCVariant value;
            value.SetText(L"requests");
            if (m_pContext)
                m_pContext->SetValue(wszName, 0, value.Ptr());
        }
        size_t uStart = 0;
        while (uStart < wsRecords.size()) {
            size_t uEnd = wsRecords.find(L'\n', uStart);
            if (uEnd == std::wstring::npos)
                uEnd = wsRecords.size();
            std::vector<std::wstring> fields;
            size_t uField = uStart;
            for (;;) {
                const size_t uTab = wsRecords.find(L'\t', uField);
                if (uTab == std::wstring::npos || uTab > uEnd) {
                    fields.push_back(wsRecords.substr(uField, uEnd - uField));
                    break;
                }
                fields.push_back(wsRecords.substr(uField, uTab - uField));
                uField = uTab + 1;
            }
            fields.resize(4);
            m_calls.push_back(fields);
            uStart = uEnd + 1;
        }
        // The handler's connection exists before the request, so the replay's does too.
        for (const std::vector<std::wstring>& call : m_calls) {
            if (call[1].empty() || m_connected.count(call[1]))
                continue;
            CCBstr bstrNamespace(call[1].c_str());
            m_pLocator->ConnectServer(bstrNamespace.Get(), nullptr, nullptr, nullptr, 0, nullptr, m_pContext.Get(),
                                      m_connected[call[1]].GetAddressOf());
        }
    }
    size_t Calls() const { return m_calls.size(); }

    void Run()
    {
        std::map<std::wstring, ComPtr<IWbemServices>> services = m_connected;
        std::map<std::wstring, std::pair<ComPtr<IEnumWbemClassObject>, std::wstring>> enums;  // subject: enumerator, class
        std::map<std::wstring, ComPtr<IWbemClassObject>> objects;                              // latest by class
        std::map<std::wstring, ComPtr<IWbemClassObject>> classes;
        for (const std::vector<std::wstring>& call : m_calls) {
            const std::wstring& wsMethod = call[0];
            const std::wstring& wsTarget = call[2];
            const std::wstring& wsDetail = call[3];
            IWbemServices* pServices = services.count(call[1]) ? services[call[1]].Get() : nullptr;
            if (wsMethod == L"ConnectServer") {
                CCBstr bstrNamespace(wsTarget.c_str());
                m_pLocator->ConnectServer(bstrNamespace.Get(), nullptr, nullptr, nullptr, 0, nullptr, m_pContext.Get(),
                                          services[wsTarget].ReleaseAndGetAddressOf());
            } else if (wsMethod == L"SetBlanket") {
                if (services.count(wsTarget))
                    CoSetProxyBlanket(services[wsTarget].Get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                      RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE);
            } else if (wsMethod == L"GetObject" && pServices) {
                CCBstr bstrPath(wsTarget.c_str());
                ComPtr<IWbemClassObject> pObject;
                pServices->GetObject(bstrPath.Get(), 0, m_pContext.Get(), pObject.GetAddressOf(), nullptr);
                (wsTarget.find(L'=') == std::wstring::npos ? classes : objects)[wsDetail] = pObject;
            } else if ((wsMethod == L"ExecQuery" || wsMethod == L"CreateInstanceEnum") && pServices) {
                ComPtr<IEnumWbemClassObject> pEnum;
                CCBstr bstrTarget(wsTarget.c_str());
                const long lFlags = WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY;
                if (wsMethod == L"ExecQuery") {
                    CCBstr bstrLanguage(L"WQL");
                    pServices->ExecQuery(bstrLanguage.Get(), bstrTarget.Get(), lFlags, m_pContext.Get(), pEnum.GetAddressOf());
                } else {
                    pServices->CreateInstanceEnum(bstrTarget.Get(), lFlags, m_pContext.Get(), pEnum.GetAddressOf());
                }
                enums[wsTarget] = {pEnum, wsMethod == L"ExecQuery" ? wsDetail : wsTarget};
            } else if (wsMethod == L"Next" && enums.count(wsTarget)) {
                auto& [pEnum, wsClass] = enums[wsTarget];
                ComPtr<IWbemClassObject> pObject;
                ULONG ulReturned = 0;
                if (pEnum)
                    pEnum->Next(WBEM_INFINITE, 1, pObject.GetAddressOf(), &ulReturned);
                if (pObject)
                    objects[wsClass] = pObject;
            } else if (IWbemClassObject* pObject = Find(objects, classes, wsTarget)) {
                ObjectCall(pObject, wsMethod, wsTarget, wsDetail, objects);
            }
        }
    }

private:
    static IWbemClassObject* Find(std::map<std::wstring, ComPtr<IWbemClassObject>>& objects,
                                  std::map<std::wstring, ComPtr<IWbemClassObject>>& classes, const std::wstring& wsClass)
    {
        if (objects.count(wsClass) && objects[wsClass])
            return objects[wsClass].Get();
        return classes.count(wsClass) ? classes[wsClass].Get() : nullptr;
    }

    static void ObjectCall(IWbemClassObject* pObject, const std::wstring& wsMethod, const std::wstring& wsClass,
                           const std::wstring& wsProperty, std::map<std::wstring, ComPtr<IWbemClassObject>>& objects)
    {
        if (wsMethod == L"Get") {
            CCVariant value;
            pObject->Get(wsProperty.c_str(), 0, value.GetAddress(), nullptr, nullptr);
        } else if (wsMethod == L"Put") {
            CCVariant value;
            V_VT(value.Ptr()) = VT_NULL;
            pObject->Put(wsProperty.c_str(), 0, value.Ptr(), 0);
        } else if (wsMethod == L"SpawnInstance") {
            ComPtr<IWbemClassObject> pInstance;
            pObject->SpawnInstance(0, pInstance.GetAddressOf());
            objects[wsClass] = pInstance;
        } else if (wsMethod == L"GetQualifierSet") {
            ComPtr<IWbemQualifierSet> pQualifiers;
            pObject->GetQualifierSet(pQualifiers.GetAddressOf());
        } else if (wsMethod == L"GetPropertyQualifierSet") {
            ComPtr<IWbemQualifierSet> pQualifiers;
            pObject->GetPropertyQualifierSet(wsProperty.c_str(), pQualifiers.GetAddressOf());
        }
    }

    ComPtr<IWbemLocator> m_pLocator;
    ComPtr<IWbemContext> m_pContext;
    std::vector<std::vector<std::wstring>> m_calls;
    std::map<std::wstring, ComPtr<IWbemServices>> m_connected;
};

struct Row {
    double t1 = 0, t10 = 0, floor1 = 0, floor10 = 0, traced = 0;
    size_t uCalls = 0;
    long lTraceLines = 0;
};

// A machine loaded into CimStore and a handler of a freshly loaded module, after two agent cycles:
// the first stores every event, the second settles what the first changed.
struct SettledMachine {
    SettledMachine(const std::wstring& wsRoot, int iScale)
    {
        LoadMachine(wsRoot, iScale);
        if (!module.Loaded())
            Fail("LoadLibrary(Moradel.dll)", HRESULT_FROM_WIN32(GetLastError()));
        pEvents = Connect(kEventNamespace);
        pHandler = NewHandler(module);
        AgentCycle(pHandler.Get(), pEvents.Get());
        AgentCycle(pHandler.Get(), pEvents.Get());
    }
    MoradelModule module;
    ComPtr<IWbemServices> pEvents;
    ComPtr<INotifications> pHandler;
};

std::wstring RecordRequest(INotifications* pHandler, ULONG ulId)
{
    CimStoreRecordCalls(TRUE);
    CCVariant events;
    Request(pHandler, ulId, &events);
    CCBstr bstrRecords;
    CimStoreGetCallRecords(bstrRecords.GetAddress());
    CimStoreRecordCalls(FALSE);
    return bstrRecords ? std::wstring(bstrRecords.Get(), bstrRecords.Length()) : std::wstring();
}

// Request and floor of every id on one machine size.
void Measure(const std::wstring& wsRoot, int iScale, int iReps, std::map<ULONG, Row>& rows)
{
    SettledMachine machine(wsRoot, iScale);
    INotifications* pHandler = machine.pHandler.Get();
    for (const CNotificationHandler::KindEntry& entry : CNotificationHandler::KindTable()) {
        Row& row = rows[entry.ulNotfyId];
        const double t = MedianMicros(iReps, [&] {
            CCVariant events;
            Request(pHandler, entry.ulNotfyId, &events);
        });
        Replay replay(RecordRequest(pHandler, entry.ulNotfyId));
        const double floor = MedianMicros(iReps, [&] { replay.Run(); });
        (iScale == 1 ? row.t1 : row.t10) = t;
        (iScale == 1 ? row.floor1 : row.floor10) = floor;
        if (iScale == 1)
            row.uCalls = replay.Calls();
    }
}

long CountLines(const std::wstring& wsFile)
{
    HANDLE h = CreateFileW(wsFile.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                           nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return 0;
    long lLines = 0;
    wchar_t buffer[8192];
    DWORD dwRead = 0;
    while (ReadFile(h, buffer, sizeof(buffer), &dwRead, nullptr) && dwRead)
        lLines += static_cast<long>(std::count(buffer, buffer + dwRead / sizeof(wchar_t), L'\n'));
    CloseHandle(h);
    return lLines;
}

// The requests again with tracing at level 6 into a file; the module reads its trace settings when loaded.
void MeasureTraced(const std::wstring& wsRoot, int iReps, std::map<ULONG, Row>& rows)
{
    wchar_t wszTemp[MAX_PATH];
    GetTempPathW(MAX_PATH, wszTemp);
    const std::wstring wsTrace = std::wstring(wszTemp) + L"moradel-requests-bench.trc";
    DeleteFileW(wsTrace.c_str());
    HKEY hKey = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, kTraceKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &hKey, nullptr) != ERROR_SUCCESS)
        Fail("RegCreateKeyEx", E_ACCESSDENIED);
    const DWORD dwOn = 1;
    const DWORD dwLevel = 6;
    RegSetValueExW(hKey, L"Trace", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwOn), sizeof(dwOn));
    RegSetValueExW(hKey, L"TraceLevel", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwLevel), sizeof(dwLevel));
    RegSetValueExW(hKey, L"TraceFile", 0, REG_SZ, reinterpret_cast<const BYTE*>(wsTrace.c_str()),
                   static_cast<DWORD>((wsTrace.size() + 1) * sizeof(wchar_t)));
    RegCloseKey(hKey);
    {
        SettledMachine machine(wsRoot, 1);
        INotifications* pHandler = machine.pHandler.Get();
        for (const CNotificationHandler::KindEntry& entry : CNotificationHandler::KindTable()) {
            Row& row = rows[entry.ulNotfyId];
            const long lBefore = CountLines(wsTrace);
            CCVariant events;
            Request(pHandler, entry.ulNotfyId, &events);
            row.lTraceLines = CountLines(wsTrace) - lBefore;
            row.traced = MedianMicros(iReps, [&] {
                CCVariant repeated;
                Request(pHandler, entry.ulNotfyId, &repeated);
            });
        }
    }
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, kTraceKey);
    DeleteFileW(wsTrace.c_str());
}

}  // namespace

// iRequests requests cycling over every id on one handler: live heap and handles after the first
// thousand and at the end, and the store objects left once the handler is gone.
int Soak(const std::wstring& wsRoot, int iRequests)
{
    const auto heapKiB = [] { return static_cast<double>(LiveHeapBytes()) / 1024.0; };
    LONG lObjectsBefore = 0;
    double kbAt1000 = 0;
    DWORD dwHandlesAt1000 = 0;
    double kbEnd = 0;
    DWORD dwHandlesEnd = 0;
    const double t0 = Now();
    {
        SettledMachine machine(wsRoot, 1);
        lObjectsBefore = CimStoreLiveObjects();
        const auto& table = CNotificationHandler::KindTable();
        for (int r = 0; r < iRequests; ++r) {
            if (r == 1000) {
                CimStoreClearContextRecords();  // CimStore's own log of every call's context
                kbAt1000 = heapKiB();
                dwHandlesAt1000 = OpenHandles();
            }
            CCVariant events;
            Request(machine.pHandler.Get(), table[static_cast<size_t>(r) % table.size()].ulNotfyId, &events);
        }
        machine.pHandler.Reset();
        CimStoreClearContextRecords();
        kbEnd = heapKiB();
        dwHandlesEnd = OpenHandles();
        std::printf("live store objects: %ld with the handler's machine, %ld after its last request\n",
                    lObjectsBefore, static_cast<long>(CimStoreLiveObjects()));
    }
    std::printf("%d requests in %.1f s; live heap at request 1,000: %.0f KiB, after the last request and the handler: %.0f KiB (%+.0f KiB); "
                "handles %lu, at the end %lu\n",
                iRequests, (Now() - t0) / 1e6, kbAt1000, kbEnd, kbEnd - kbAt1000,
                static_cast<unsigned long>(dwHandlesAt1000), static_cast<unsigned long>(dwHandlesEnd));
    return 0;
}

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: requests.exe <source root> [repetitions | soak <requests>]\n");
        return 2;
    }
    wchar_t wszRoot[MAX_PATH] = {};
    MultiByteToWideChar(CP_ACP, 0, argv[1], -1, wszRoot, MAX_PATH);
    const std::wstring wsRoot = wszRoot;
    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)))
        return 2;
    if (argc > 2 && std::string(argv[2]) == "soak")
        return Soak(wsRoot, argc > 3 ? std::max(1001, std::atoi(argv[3])) : 10000);
    const int iReps = argc > 2 ? std::max(1, std::atoi(argv[2])) : 51;
    std::map<ULONG, Row> rows;
    Measure(wsRoot, 1, iReps, rows);
    Measure(wsRoot, 10, iReps, rows);
    MeasureTraced(wsRoot, iReps, rows);
    CimStoreReset();

    std::printf("| Id | Kind | Store calls | 1x (us) | Floor 1x (us) | Ratio 1x | 10x (us) | Floor 10x (us) | Ratio 10x | "
                "Exponent | Traced 1x (us) | Trace lines |\n|---|---|---|---|---|---|---|---|---|---|---|---|\n");
    int iMisses = 0;
    for (const CNotificationHandler::KindEntry& entry : CNotificationHandler::KindTable()) {
        const Row& row = rows[entry.ulNotfyId];
        const double ratio1 = row.floor1 > 0 ? row.t1 / row.floor1 : 0;
        const double ratio10 = row.floor10 > 0 ? row.t10 / row.floor10 : 0;
        const double exponent = row.t1 > 0 ? std::log10(row.t10 / row.t1) : 0;
        const bool bMiss = ratio1 > 1.5 || ratio10 > 1.5 || exponent > 1.1;
        iMisses += bMiss;
        std::printf("| %lu | %s | %zu | %.0f | %.0f | %.2f | %.0f | %.0f | %.2f | %.2f | %.0f | %ld |%s\n", entry.ulNotfyId,
                    entry.szClassName, row.uCalls, row.t1, row.floor1, ratio1, row.t10, row.floor10, ratio10, exponent,
                    row.traced, row.lTraceLines, bMiss ? " miss" : "");
    }
    std::printf("\n%d of %zu ids miss a target (ratio 1.5, exponent 1.1); %d repetitions each\n", iMisses,
                CNotificationHandler::KindTable().size(), iReps);
    CoUninitialize();
    return 0;
}
