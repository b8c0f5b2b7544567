// Notification ids 21 and 56: the free space of the local fixed disks classified against the
// KM_Filter limits (in MiB), the data disks in one kind and the system drive in the other.
#pragma once

#include "core/CNotfyBase.h"

#include <string>

class CNotfyHardDisksFreeSpace : public CNotfyBase {
public:
    ~CNotfyHardDisksFreeSpace() override;

    HRESULT RetrieveInstances() override;

    // The disk is the current object of disk.
    HRESULT SetEventData(CCWMIAccess& disk);

    // "C:" of "C:\Windows\system32"; empty when the directory does not start with a drive.
    static std::string GetSystemDrive(const char* szSystemDirectory);

protected:
    // szQueryTemplate holds one %s for the system drive. The query goes into the auxiliary string
    // and stays empty when the system drive cannot be found, so that every cycle fails on it.
    CNotfyHardDisksFreeSpace(const char* szKindName, unsigned long ulNotfyId, const char* szEventClass,
                             const char* szQueryTemplate);

private:
    const char* m_szKindName;
};

// Every local fixed disk except the system drive.
class CNotfyHardDisksFreeSpaceData : public CNotfyHardDisksFreeSpace {
public:
    static constexpr unsigned long kNotfyId = 21;

    CNotfyHardDisksFreeSpaceData();
};

// The system drive alone.
class CNotfyHardDisksFreeSpaceSystem : public CNotfyHardDisksFreeSpace {
public:
    static constexpr unsigned long kNotfyId = 56;

    CNotfyHardDisksFreeSpaceSystem();
};
