// Notification id 1: the self-monitoring (SMART) state of each physical disk: the drive's own
// failure prediction, the pre-failure attributes of an IDE/ATA disk at or near their thresholds,
// and the sense code and grown defects of a SCSI disk.
#pragma once

#include "core/CNotfyBase.h"

#include <string>
#include <vector>

// The limits of the kind, from its KM_Filter instance.
struct CSmartLimits {
    LONGLONG llMargin = 10;            // LowWarning: above an attribute's threshold, still a warning
    LONGLONG llDefectsWarning = 50;    // HighWarning: grown defects of a SCSI disk
    LONGLONG llDefectsCritical = 500;  // HighCritical
};

// What was found wrong with one disk: status 1 normal, 2 warning, 3 critical, and one entry per finding.
struct CSmartFindings {
    unsigned long ulStatus = 1;
    std::vector<std::wstring> entries;

    void Add(unsigned long ulFindingStatus, std::wstring wsEntry);
};

// One attribute of an IDE/ATA disk.
struct CSmartAttribute {
    ULONG ulId = 0;
    std::wstring wsName;
    ULONG ulValue = 0;
    ULONG ulThreshold = 0;
    bool bPreFailure = false;
};

// The sense data of a SCSI disk; an absent property is no finding.
struct CSmartScsiData {
    bool bHasSenseCode = false;
    ULONG ulSenseCode = 0;
    ULONG ulSenseCodeQualifier = 0;
    bool bHasGrownDefects = false;
    ULONG ulGrownDefects = 0;
};

class CNotfyHardDisksSMART : public CNotfyBase {
public:
    static constexpr unsigned long kNotfyId = 1;

    CNotfyHardDisksSMART();
    ~CNotfyHardDisksSMART() override;

    HRESULT RetrieveInstances() override;

    // The disk is the current object of source.
    HRESULT SetEventData(CCWMIAccess& source);

    static void ClassifyAttribute(const CSmartAttribute& attribute, const CSmartLimits& limits,
                                  CSmartFindings* pFindings);
    static void ClassifyScsiData(const CSmartScsiData& data, const CSmartLimits& limits, CSmartFindings* pFindings);

private:
    void AddAttributeFindings(const std::wstring& wsDeviceId, CSmartFindings* pFindings);
    void AddScsiFindings(const std::wstring& wsDeviceId, CSmartFindings* pFindings);

    CSmartLimits m_limits;
};
