#include "notifications/inventory/CNotfyHardDisksFreeSpace.h"

#include "access/ComHolders.h"
#include "core/EventValues.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"
#include "notifications/inventory/DecimalText.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr char kRetrieve[] = "CNotfyHardDisksFreeSpace::RetrieveInstances";
constexpr char kSetEventData[] = "CNotfyHardDisksFreeSpace::SetEventData";
constexpr char kNoDeviceId[] = "Raising exception because Getting 'DeviceID' failed.";

// The disk's DeviceID; an empty one has no first character to identify the disk by.
std::wstring ReadDeviceId(CCWMIAccess& disk, const char* szQualifiedName)
{
    std::wstring wsDeviceId;
    HRESULT hr = ReadText(disk, "DeviceID", &wsDeviceId);
    if (SUCCEEDED(hr) && wsDeviceId.empty())
        hr = WBEM_E_INVALID_PROPERTY;
    RaiseIfFailed(hr, szQualifiedName, kNoDeviceId);
    return wsDeviceId;
}

}  // namespace

CNotfyHardDisksFreeSpace::CNotfyHardDisksFreeSpace(const char* szKindName, unsigned long ulNotfyId,
                                                   const char* szEventClass, const char* szQueryTemplate)
    : m_szKindName(szKindName)
{
    m_ulNotfyId = ulNotfyId;
    m_sEventClassName = szEventClass;
    char szSystemDirectory[MAX_PATH] = {};
    const UINT uLength = GetSystemDirectoryA(szSystemDirectory, MAX_PATH);
    // A length of MAX_PATH or more is the size the directory would have needed.
    const std::string sDrive =
        (uLength > 0 && uLength < MAX_PATH) ? GetSystemDrive(szSystemDirectory) : std::string();
    if (!sDrive.empty()) {
        std::vector<char> query(strlen(szQueryTemplate) + sDrive.size() + 1);
        const int iWritten = snprintf(query.data(), query.size(), szQueryTemplate, sDrive.c_str());
        if (iWritten > 0 && static_cast<size_t>(iWritten) < query.size())
            m_sAuxiliary = query.data();
    }
    TraceLifetime(m_szKindName, true);
}

CNotfyHardDisksFreeSpace::~CNotfyHardDisksFreeSpace()
{
    TraceLifetime(m_szKindName, false);
}

std::string CNotfyHardDisksFreeSpace::GetSystemDrive(const char* szSystemDirectory)
{
    if (!szSystemDirectory)
        return std::string();
    const char c = szSystemDirectory[0];
    if (((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')) && szSystemDirectory[1] == ':')
        return std::string(szSystemDirectory, 2);
    return std::string();
}

HRESULT CNotfyHardDisksFreeSpace::RetrieveInstances()
{
    CCMethodTrace trace(TRACE_INFO, kRetrieve, kEntered);
    const CEventStepTexts texts;
    return trace.Return(ForEachSourceInstance(kRetrieve, m_sReferencedNamespace.c_str(), m_sAuxiliary.c_str(),
                                              [&](CCWMIAccess& disk) {
        // DeviceId is a number here, so it is not copied from the disk's DeviceID text.
        BeginEvent(disk, texts, kRetrieve, false);
        const std::wstring wsDeviceId = ReadDeviceId(disk, kRetrieve);
        RaiseIfFailed(PutI4(m_wmi, "DeviceId", static_cast<LONG>(wsDeviceId[0])), kRetrieve,
                      "Raising exception because setting 'DeviceID' failed.");
        const HRESULT hrData = SetEventData(disk);
        RaiseIfFailed(hrData, kRetrieve, texts.szSetEventData);
        if (hrData == NOTFY_S_SKIP)
            RaiseSkip(hrData, kRetrieve, "Raising exception because no instance has to be set.");
        CompleteEvent(hrData, kRetrieve, texts);
    }));
}

HRESULT CNotfyHardDisksFreeSpace::SetEventData(CCWMIAccess& disk)
{
    CCMethodTrace trace(TRACE_INFO, kSetEventData, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        const std::wstring wsDeviceId = ReadDeviceId(disk, kSetEventData);
        RaiseIfFailed(PutText(m_wmi, "Name", wsDeviceId), kSetEventData,
                      "Raising exception because SetProperty on 'Name' failed");

        // A text that is not a plain unsigned number is refused: read as 0 it would raise a
        // false alarm about a full disk.
        std::wstring wsFree;
        ULONGLONG ullFreeBytes = 0;
        HRESULT hr = ReadText(disk, "FreeSpace", &wsFree);
        if (SUCCEEDED(hr) && !ParseDecimalU64(wsFree, &ullFreeBytes))
            hr = WBEM_E_TYPE_MISMATCH;
        RaiseIfFailed(hr, kSetEventData, "Raising exception because could not get the current free disk space");
        const ULONGLONG ullFreeMiB = ullFreeBytes >> 20;
        RaiseIfFailed(PutText(m_wmi, "FreeDiskSpace", std::to_wstring(ullFreeMiB)), kSetEventData,
                      "Raising exception because SetProperty on 'FreeDiskSpace' failed");

        // The percentage is optional: an unreadable size, and a disk below one MiB (no size in MiB
        // to divide by), leave FreeDiskPercentage unwritten and the event is still reported.
        std::wstring wsSize;
        ULONGLONG ullSizeBytes = 0;
        if (SUCCEEDED(ReadText(disk, "Size", &wsSize)) && ParseDecimalU64(wsSize, &ullSizeBytes) &&
            (ullSizeBytes >> 20) != 0) {
            // Free MiB stay below 2^44, so the product cannot overflow; more free space than size
            // (inconsistent data) could still exceed the property's range.
            ULONGLONG ullPercent = ullFreeMiB * 100 / (ullSizeBytes >> 20);
            if (ullPercent > static_cast<ULONGLONG>(LONG_MAX))
                ullPercent = LONG_MAX;
            RaiseIfFailed(PutI4(m_wmi, "FreeDiskPercentage", static_cast<LONG>(ullPercent)), kSetEventData,
                          "Raising exception because SetProperty on 'FreeDiskPercentage' failed");
        }

        const unsigned long ulState = GetThresholdState(ullFreeMiB, nullptr, nullptr, nullptr, nullptr);
        if (ulState < 1 || ulState > 3)
            RaiseHr(WBEM_E_INVALID_OBJECT, kSetEventData, "Raising exception because unspecified status returned",
                    "State: %lu", ulState);
        const LONG lTextId = static_cast<LONG>(m_ulNotfyId * 1000 + ulState);

        WriteEventState(m_wmi, static_cast<LONG>(ulState), lTextId, kSetEventData);
        RaiseIfFailed(PutTextArray(m_wmi, "EventTextArguments", {wsDeviceId}), kSetEventData,
                      "Raising exception because SetProperty on 'EventTextArguments' failed");
        return SetEventType(ulState);
    }));
}

CNotfyHardDisksFreeSpaceData::CNotfyHardDisksFreeSpaceData()
    : CNotfyHardDisksFreeSpace("CNotfyHardDisksFreeSpaceData", kNotfyId, "KM_HardDisks_FreeSpace_Static",
                               "select * from Win32_LogicalDisk where DriveType = 3 and DeviceID != \"%s\"")
{
}

CNotfyHardDisksFreeSpaceSystem::CNotfyHardDisksFreeSpaceSystem()
    : CNotfyHardDisksFreeSpace("CNotfyHardDisksFreeSpaceSystem", kNotfyId, "KM_HardDisks_FreeSpaceSystem_Static",
                               "select * from Win32_LogicalDisk where DriveType = 3 and DeviceID = \"%s\"")
{
}
