#include "module/CMoradeldllModule.h"

#include "framework/CCQuillTrace.h"

namespace {
constexpr char kTraceBaseKey[] = "Software\\Tessaline Systems\\Common\\Tracing\\";
constexpr char kTraceModuleSubKey[] = "Moradel.dll\\1.06";
constexpr unsigned long kTraceFlags = TRACE_FLAG_RESERVED | TRACE_FLAG_NO_KEY;
}  // namespace

CMoradeldllModule _Module;

CMoradeldllModule::CMoradeldllModule()
{
    CCQuillTrace& trace = GetTrace();
    trace.Configure(kTraceModuleSubKey, kTraceFlags, kTraceBaseKey);
    trace.TraceMsgClass(TRACE_INFO, nullptr, "CMoradeldllModule", "CMoradeldllModule", "Enter",
                        "An instance of CMoradeldllModule was constructed");
    trace.TraceMsgClass(TRACE_INFO, nullptr, "CMoradeldllModule", "CMoradeldllModule", "Leave",
                        "An instance of CMoradeldllModule was constructed");
}

CMoradeldllModule::~CMoradeldllModule()
{
    CCQuillTrace& trace = GetTrace();
    trace.TraceMsgClass(TRACE_INFO, nullptr, "CMoradeldllModule", "~CMoradeldllModule", "Enter",
                        "An instance of CMoradeldllModule was destructed");
    trace.TraceMsgClass(TRACE_INFO, nullptr, "CMoradeldllModule", "~CMoradeldllModule", "Leave",
                        "An instance of CMoradeldllModule was destructed");
}

HINSTANCE CMoradeldllModule::GetInstance() const
{
    if (m_hInstance)
        return m_hInstance;
    HMODULE hModule = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&_Module), &hModule);
    return hModule;
}

std::wstring CMoradeldllModule::GetModulePath() const
{
    std::wstring wsPath(MAX_PATH, L'\0');
    for (;;) {
        const DWORD cch = GetModuleFileNameW(GetInstance(), wsPath.data(), static_cast<DWORD>(wsPath.size()));
        if (cch == 0)
            return std::wstring();
        if (cch < wsPath.size()) {
            wsPath.resize(cch);
            return wsPath;
        }
        wsPath.resize(wsPath.size() * 2);
    }
}
