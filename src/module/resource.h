// Resource ids of Moradel.dll, shared by the .rc and the code that reads them.
#pragma once

#define IDR_MORADELDLL 101
#define IDS_PROJNAME 100
#define IDS_HANDLER_DESCRIPTION 102
