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
