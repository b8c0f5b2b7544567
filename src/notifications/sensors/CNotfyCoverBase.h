// What the two cover kinds share: a machine has one intrusion switch, so their obsolescence
// check looks at the first stored instance only.
#pragma once

#include "core/CNotfyBase.h"

#include <functional>

class CNotfyCoverBase : public CNotfyBase {
protected:
    // What a first stored instance without a usable Object path means.
    enum class EMissingPath { KeepAll, EndWithSkip };

    // Puts the first stored instance of the event class on the obsolete list when its live object
    // (in the referenced-object namespace) is gone or isLiveObsolete answers true for it, then
    // deletes the listed instances. isLiveObsolete may raise to end the deletion with its code.
    HRESULT DeleteObsoleteFirstInstance(const char* szQualifiedName, EMissingPath missingPath,
                                        const std::function<bool(CCWMIAccess& live)>& isLiveObsolete);
};
