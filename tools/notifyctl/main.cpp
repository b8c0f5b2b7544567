// notifyctl: runs requests and agent cycles against CNotificationHandler and prints the events.
//   notifyctl [options] get|delete|cycle <id>...|all
// Exit status: 0 every request succeeded, 1 otherwise, 2 usage error.
#include "NotifyctlOutput.h"

#include "access/ComHolders.h"
#include "core/CNotificationHandler.h"

#include <fcntl.h>
#include <io.h>
#include <objbase.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr wchar_t kProgId[] = L"Moradel.NotificationHandler.1.06";

enum class Command { Get, Delete, Cycle };

struct Options {
    Command command = Command::Get;
    std::vector<ULONG> ids;
    std::wstring wsNamespace = L"root\\oxl1v2\\KM_Notification";
    std::wstring wsFeature = L"Notifyctl";
    std::wstring wsFeatureVersion = L"1.06";
    std::wstring wsContext = L"Console";
    OutputFormat format = OutputFormat::Table;
    bool bHelp = false;
};

const char kUsage[] =
    "usage: notifyctl [--namespace NS] [--feature NAME] [--feature-version V] [--context C]\n"
    "                 [--format table|mof|json] get|delete|cycle <id>...|all\n"
    "       notifyctl --help | -h\n";
const char kCommands[] =
    "  get     the events of each id\n"
    "  delete  delete the obsolete stored events of each id\n"
    "  cycle   what the agent does: get, store the events without NoPut, delete the obsolete ones\n"
    "  all     every id of the handler's table\n"
    "exit status: 0 every request succeeded, 1 otherwise, 2 usage error\n";

// False on a usage error, with the reason in sError.
bool ParseArguments(int argc, wchar_t** argv, Options& options, std::string& sError)
{
    bool bHaveCommand = false;
    for (int i = 1; i < argc; ++i) {
        const std::wstring wsArg = argv[i];
        auto value = [&](std::wstring& wsTarget) {
            if (i + 1 >= argc) {
                sError = Utf8(wsArg) + " needs a value";
                return false;
            }
            wsTarget = argv[++i];
            return true;
        };
        if (wsArg == L"--help" || wsArg == L"-h") {
            options.bHelp = true;
            return true;
        }
        if (wsArg == L"--namespace" || wsArg == L"--feature" || wsArg == L"--feature-version" || wsArg == L"--context") {
            std::wstring& wsTarget = wsArg == L"--namespace" ? options.wsNamespace
                                     : wsArg == L"--feature" ? options.wsFeature
                                     : wsArg == L"--feature-version" ? options.wsFeatureVersion
                                                                      : options.wsContext;
            if (!value(wsTarget))
                return false;
        } else if (wsArg == L"--format") {
            std::wstring wsFormat;
            if (!value(wsFormat))
                return false;
            if (wsFormat == L"table")
                options.format = OutputFormat::Table;
            else if (wsFormat == L"mof")
                options.format = OutputFormat::Mof;
            else if (wsFormat == L"json")
                options.format = OutputFormat::Json;
            else {
                sError = "unknown format " + Utf8(wsFormat);
                return false;
            }
        } else if (wsArg.rfind(L"--", 0) == 0) {
            sError = "unknown option " + Utf8(wsArg);
            return false;
        } else if (!bHaveCommand) {
            if (wsArg == L"get")
                options.command = Command::Get;
            else if (wsArg == L"delete")
                options.command = Command::Delete;
            else if (wsArg == L"cycle")
                options.command = Command::Cycle;
            else {
                sError = "unknown command " + Utf8(wsArg);
                return false;
            }
            bHaveCommand = true;
        } else if (wsArg == L"all") {
            for (const auto& entry : CNotificationHandler::KindTable())
                options.ids.push_back(entry.ulNotfyId);
        } else {
            wchar_t* pEnd = nullptr;
            const unsigned long long ullId = wcstoull(wsArg.c_str(), &pEnd, 10);
            if (wsArg.empty() || *pEnd != L'\0' || ullId > 0xFFFFFFFFull) {
                sError = "not a notification id: " + Utf8(wsArg);
                return false;
            }
            options.ids.push_back(static_cast<ULONG>(ullId));
        }
    }
    if (!bHaveCommand)
        sError = "no command";
    else if (options.ids.empty())
        sError = "no notification id";
    return sError.empty();
}

void Get(INotifications* pHandler, RequestResult& result)
{
    CCVariant instances;
    result.bHasInstances = true;
    result.hr = pHandler->GetInstances(result.ulId, instances.Ptr(), &result.ulReturnValue);
    if (FAILED(result.hr) || instances.Type() != (VT_ARRAY | VT_VARIANT))
        return;
    SAFEARRAY* psa = V_ARRAY(&instances.Get());
    LONG lLower = 0;
    LONG lUpper = -1;
    SafeArrayGetLBound(psa, 1, &lLower);
    SafeArrayGetUBound(psa, 1, &lUpper);
    for (LONG i = lLower; i <= lUpper; ++i) {
        CCVariant element;
        ComPtr<IWbemClassObject> pObject;
        if (SUCCEEDED(SafeArrayGetElement(psa, &i, element.Ptr())) && element.Type() == VT_UNKNOWN &&
            V_UNKNOWN(&element.Get()))
            V_UNKNOWN(&element.Get())->QueryInterface(IID_IWbemClassObject, reinterpret_cast<void**>(pObject.GetAddressOf()));
        if (pObject)
            result.instances.push_back(pObject);
    }
}

void Delete(INotifications* pHandler, RequestResult& result)
{
    result.bDeleteRan = true;
    result.hrDelete = pHandler->DeleteObsoleteInstances(result.ulId, &result.ulDeleteReturnValue);
}

// What the agent does each cycle: get, put what changed, delete what is obsolete.
void Cycle(INotifications* pHandler, IWbemServices* pEvents, RequestResult& result)
{
    result.bCycle = true;
    Get(pHandler, result);
    if (SUCCEEDED(result.hr)) {
        for (const auto& pInstance : result.instances) {
            if (HasNoPut(pInstance.Get()))
                continue;
            const HRESULT hr = pEvents ? pEvents->PutInstance(pInstance.Get(), WBEM_FLAG_CREATE_OR_UPDATE, nullptr, nullptr)
                                       : E_POINTER;
            if (FAILED(hr)) {
                if (SUCCEEDED(result.hrStore))
                    result.hrStore = hr;
                continue;
            }
            CCVariant relPath;
            pInstance->Get(L"__RELPATH", 0, relPath.GetAddress(), nullptr, nullptr);
            result.stored.push_back(relPath.Type() == VT_BSTR ? V_BSTR(&relPath.Get()) : L"");
        }
    }
    Delete(pHandler, result);
}

int Run(const Options& options)
{
    CLSID clsid = {};
    HRESULT hr = CLSIDFromProgID(kProgId, &clsid);
    ComPtr<INotifications> pHandler;
    if (SUCCEEDED(hr))
        hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_INotifications,
                              reinterpret_cast<void**>(pHandler.GetAddressOf()));
    if (FAILED(hr)) {
        fprintf(stderr, "notifyctl: cannot create %ls: %s (is Moradel.dll registered?)\n", kProgId, HexHr(hr).c_str());
        return kExitFailed;
    }
    CCBstr bstrFeature(options.wsFeature.c_str());
    CCBstr bstrVersion(options.wsFeatureVersion.c_str());
    CCBstr bstrContext(options.wsContext.c_str());
    VARIANT_BOOL bComponent = VARIANT_FALSE;
    pHandler->ComponentInitialize(bstrFeature.Get(), bstrVersion.Get(), bstrContext.Get(), &bComponent);
    CCBstr bstrNamespace(options.wsNamespace.c_str());
    ULONG ulReturn = 0;
    hr = pHandler->Initialize(bstrNamespace.Get(), &ulReturn);
    if (FAILED(hr)) {
        fprintf(stderr, "notifyctl: Initialize failed: %s\n", HexHr(hr).c_str());
        return kExitFailed;
    }

    ComPtr<IWbemServices> pEvents;
    if (options.command == Command::Cycle) {
        ComPtr<IWbemLocator> pLocator;
        hr = CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                              reinterpret_cast<void**>(pLocator.GetAddressOf()));
        if (SUCCEEDED(hr))
            hr = pLocator->ConnectServer(bstrNamespace.Get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                         pEvents.GetAddressOf());
        if (FAILED(hr))
            fprintf(stderr, "notifyctl: cannot open %ls for storing: %s\n", options.wsNamespace.c_str(),
                    HexHr(hr).c_str());
    }

    std::vector<RequestResult> results;
    bool bAllSucceeded = true;
    for (ULONG ulId : options.ids) {
        RequestResult result;
        result.ulId = ulId;
        switch (options.command) {
        case Command::Get: Get(pHandler.Get(), result); break;
        case Command::Delete:
            Delete(pHandler.Get(), result);
            result.hr = result.hrDelete;
            result.ulReturnValue = result.ulDeleteReturnValue;
            result.bDeleteRan = false;
            break;
        case Command::Cycle: Cycle(pHandler.Get(), pEvents.Get(), result); break;
        }
        bAllSucceeded = bAllSucceeded && result.Succeeded();
        results.push_back(std::move(result));
    }
    const std::string sOutput = FormatResults(results, options.format);
    fwrite(sOutput.data(), 1, sOutput.size(), stdout);
    fflush(stdout);
    return bAllSucceeded ? kExitOk : kExitFailed;
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    try {
        Options options;
        std::string sError;
        if (!ParseArguments(argc, argv, options, sError)) {
            fprintf(stderr, "notifyctl: %s\n%s", sError.c_str(), kUsage);
            return kExitUsage;
        }
        // Plain \n line ends, so the output reads the same on both sides of Wine.
        _setmode(_fileno(stdout), _O_BINARY);
        if (options.bHelp) {
            fputs(kUsage, stdout);
            fputs(kCommands, stdout);
            return kExitOk;
        }
        if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
            fprintf(stderr, "notifyctl: COM could not be initialised\n");
            return kExitFailed;
        }
        const int iExit = Run(options);
        CoUninitialize();
        return iExit;
    } catch (...) {
        fprintf(stderr, "notifyctl: unexpected failure\n");
        return kExitFailed;
    }
}
