// A repository kept as a folder of MOF files: every *.mof in file-name order, then state.mof,
// which holds the net effect of PutInstance/DeleteInstance.
#pragma once

#include "cimstore/CimRepository.h"

#include <functional>

namespace cimstore {

constexpr wchar_t kStateFileName[] = L"state.mof";

// Compiles the folder into the repository as one transaction; state.mof's changes are tracked
// so that the next SaveState keeps them. On failure the repository is unchanged.
MofResult LoadRepositoryFolder(CimRepository& repository, std::wstring_view wsFolder,
                               std::wstring_view wsNamespace = L"root\\default");

// Runs between writing the temporary file and moving it into place; a failure stops the move.
using BeforePublish = std::function<HRESULT()>;

// Writes the tracked changes to state.mof through a temporary file moved into place.
HRESULT SaveRepositoryState(const CimRepository& repository, std::wstring_view wsFolder,
                            const BeforePublish& beforePublish = {});

// UTF-16 text with byte order mark, written to wsPath + ".tmp" then moved over wsPath.
HRESULT WriteFileAtomically(std::wstring_view wsPath, std::wstring_view wsText,
                            const BeforePublish& beforePublish = {});

}  // namespace cimstore
