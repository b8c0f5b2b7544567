// CCAssembly and CCComponentT<CCAssembly> inside the test program: the program's own
// file name and version resource (TestVersion.rc) identify it in the dependency tables.
#include "framework/CCAssembly.h"
#include "framework/CCComponentT.h"

#include "access/ComHolders.h"
#include "access/ErrorText.h"
#include "CommonKeyValues.h"
#include "GlobalTraceLog.h"
#include "TempDir.h"

#include <gtest/gtest.h>

#include <windows.h>
#include <msxml2.h>
#include <wrl/client.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr char kModuleFile[] = "unit_tests.exe";
constexpr char kFileVersion[] = "2.07.1.5 (test)";  // TestVersion.rc

using Rows = std::vector<std::vector<std::string>>;

// One table with one feature "Feat" 1.0, context "Ctx" and this program as identity.
std::string Table(const std::string& sDependencies, const std::string& sIdentityVersion = "*",
                  const std::string& sFeatureAttributes = "")
{
    return "<?xml version=\"1.0\"?>\n"
           "<features>\n"
           "  <feature name=\"Other\" version=\"1.0\" rootFolder=\"X:\\wrong\">\n"
           "    <context name=\"Ctx\"><assemblyIdentity name=\"unit_tests.exe\" version=\"*\"/></context>\n"
           "  </feature>\n"
           "  <feature name=\"Feat\" version=\"1.0\"" +
           sFeatureAttributes +
           ">\n"
           "    <context name=\"Ctx\">\n"
           "      <assemblyIdentity name=\"unit_tests.exe\" version=\"" +
           sIdentityVersion +
           "\">\n"
           "        <dependencies>\n" +
           sDependencies +
           "        </dependencies>\n"
           "      </assemblyIdentity>\n"
           "    </context>\n"
           "  </feature>\n"
           "</features>\n";
}

struct ParserReport {
    bool bLoaded = false;
    long lLine = -1;
    long lColumn = -1;
    std::string sReason;
};

// Asks MSXML itself what it makes of a file, without the code under test.
ParserReport ParseFile(const std::wstring& wsPath)
{
    ParserReport report;
    CLSID clsid = {};
    Microsoft::WRL::ComPtr<IXMLDOMDocument> pDocument;
    if (FAILED(CLSIDFromProgID(L"MSXML2.FreeThreadedDOMDocument", &clsid)) ||
        FAILED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument,
                                reinterpret_cast<void**>(pDocument.GetAddressOf()))))
        return report;
    pDocument->put_async(VARIANT_FALSE);
    CCVariant varSource;
    varSource.GetAddress()->bstrVal = SysAllocString(wsPath.c_str());
    varSource.GetAddress()->vt = VT_BSTR;
    VARIANT_BOOL bLoaded = VARIANT_FALSE;
    report.bLoaded = pDocument->load(varSource.Get(), &bLoaded) == S_OK && bLoaded == VARIANT_TRUE;
    Microsoft::WRL::ComPtr<IXMLDOMParseError> pError;
    if (SUCCEEDED(pDocument->get_parseError(pError.GetAddressOf())) && pError) {
        pError->get_line(&report.lLine);
        pError->get_linepos(&report.lColumn);
        CCBstr bstrReason;
        pError->get_reason(bstrReason.GetAddress());
        report.sReason = Narrow(bstrReason.Get() ? bstrReason.Get() : L"");
        while (!report.sReason.empty() && (report.sReason.back() == '\n' || report.sReason.back() == '\r'))
            report.sReason.pop_back();
    }
    return report;
}

class AssemblyTest : public testing::Test {
protected:
    void SetUp() override
    {
        m_uMark = GlobalTraceLog::Get().Mark();
        ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
        m_common.Set("DependencyTables", Narrow(m_dir.Path()));
        m_common.Set("ComponentRoot", "C:\\Components");
    }
    void TearDown() override
    {
        SetEnvironmentVariableA("MORADEL_TEST_DIR", nullptr);
        CoUninitialize();
    }

    void WriteFile(const std::string& sName, const std::string& sContent)
    {
        std::ofstream file(m_dir.File(Widen(sName)).c_str(), std::ios::binary);
        file << sContent;
    }
    void WriteTable(const std::string& sContent) { WriteFile("Feat_1.0.xml", sContent); }

    Rows Lines() const { return GlobalTraceLog::Get().LinesSince(m_uMark); }
    // The first line written since SetUp with this message, or nullptr.
    std::optional<std::vector<std::string>> Find(const std::string& sMessage) const
    {
        for (const auto& fields : Lines())
            if (fields.size() >= 9 && fields[7] == sMessage)
                return fields;
        return std::nullopt;
    }
    size_t Count(const std::string& sMessage) const
    {
        size_t uCount = 0;
        for (const auto& fields : Lines())
            uCount += fields.size() >= 9 && fields[7] == sMessage;
        return uCount;
    }
    std::string TablePath() const { return Narrow(m_dir.File(L"Feat_1.0.xml")); }

    TempDir m_dir;
    CommonKeyValues m_common;
    size_t m_uMark = 0;
};

TEST_F(AssemblyTest, IdentifiesTheModuleFromItsFileAndVersionResource)
{
    WriteTable(Table(""));
    CCAssembly assembly;
    ASSERT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));
    char szExe[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, szExe, MAX_PATH);
    EXPECT_STREQ(assembly.GetModulePath(), szExe);
    EXPECT_EQ(std::string(assembly.GetConfigFilePath()), std::string(szExe) + ".config.xml");
    EXPECT_STREQ(assembly.GetModuleFile(), kModuleFile);
    // Only the translation's string table holds this text.
    EXPECT_STREQ(assembly.GetFileVersion(), kFileVersion);
    EXPECT_EQ(assembly.GetModuleHandleRaw(), GetModuleHandleA(nullptr));
    EXPECT_TRUE(assembly.IsInitialized());
}

struct VersionCase {
    const char* szIdentityVersion;
    bool bMatches;
};

TEST_F(AssemblyTest, IdentityVersionMustBeExactOrStar)
{
    const VersionCase aCases[] = {
        {"*", true},          {"2.07.1.5 (test)", true}, {"2.07.1.5", false},
        {"2.07.1.5 (TEST)", false}, {"", false},       {"**", false},
    };
    for (const VersionCase& row : aCases) {
        SCOPED_TRACE(row.szIdentityVersion);
        WriteTable(Table("", row.szIdentityVersion));
        m_uMark = GlobalTraceLog::Get().Mark();
        CCAssembly assembly;
        EXPECT_EQ(assembly.Initialize("Feat", "1.0", "Ctx"), row.bMatches);
        EXPECT_EQ(assembly.IsInitialized(), row.bMatches);
        EXPECT_EQ(Find("AssemblyIdentity node not found for current assembly.").has_value(), !row.bMatches);
    }
}

struct LookupCase {
    const char* szWhat;
    const char* szFeature;
    const char* szVersion;
    const char* szContext;
    const char* szIdentityName;
};

TEST_F(AssemblyTest, MissingFeatureContextOrIdentityFails)
{
    const LookupCase aCases[] = {
        {"context differs", "Feat", "1.0", "Other", "unit_tests.exe"},
        {"context differs in case", "Feat", "1.0", "ctx", "unit_tests.exe"},
        {"identity names another module", "Feat", "1.0", "Ctx", "Moradel.dll"},
        {"identity name differs in case", "Feat", "1.0", "Ctx", "Unit_Tests.exe"},
        {"feature version in the file differs", "Feat", "1.00", "Ctx", "unit_tests.exe"},
    };
    for (const LookupCase& row : aCases) {
        SCOPED_TRACE(row.szWhat);
        // The table file is found by the caller's version; the node inside must still match it.
        const std::string sFile = std::string("Feat_") + row.szVersion + ".xml";
        std::string sContent = Table("");
        const size_t iIdentity = sContent.find("<assemblyIdentity name=\"unit_tests.exe\" version=\"*\">");
        sContent.replace(sContent.find("unit_tests.exe", iIdentity), strlen("unit_tests.exe"), row.szIdentityName);
        WriteFile(sFile, sContent);
        m_uMark = GlobalTraceLog::Get().Mark();
        CCAssembly assembly;
        EXPECT_FALSE(assembly.Initialize(row.szFeature, row.szVersion, row.szContext));
        EXPECT_FALSE(assembly.IsInitialized());
        const auto line = Find("AssemblyIdentity node not found for current assembly.");
        ASSERT_TRUE(line.has_value());
        EXPECT_EQ((*line)[3], "Error");
        EXPECT_EQ((*line)[8], std::string("ContextName: ") + row.szContext +
                                  ", AssemblyIdentity: unit_tests.exe, Version: " + kFileVersion);
        EXPECT_EQ(Count("InitializeFeatureList failed"), 1u);
        EXPECT_EQ(Count("InitializeFeature failed"), 1u);
        EXPECT_TRUE(assembly.GetComEntries().empty());
    }
}

TEST_F(AssemblyTest, MalformedTableReportsTheParserPosition)
{
    WriteTable("<?xml version=\"1.0\"?>\n<features>\n  <feature name=\"Feat\" version=\"1.0\">\n    </context>\n"
               "</features>\n");
    CCAssembly assembly;
    EXPECT_FALSE(assembly.Initialize("Feat", "1.0", "Ctx"));
    const auto line = Find("Error loading dependency table");
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ((*line)[3], "Error");
    // The position is whatever the parser reports (Wine's msxml3 reports none; Windows gives line 4).
    const ParserReport expected = ParseFile(m_dir.File(L"Feat_1.0.xml"));
    ASSERT_FALSE(expected.bLoaded);
    char szExpected[1024];
    snprintf(szExpected, sizeof(szExpected), "path='%s', Line=%ld, Col=%ld, reason='%s'", TablePath().c_str(),
             expected.lLine, expected.lColumn, expected.sReason.c_str());
    EXPECT_EQ((*line)[8], szExpected);
    EXPECT_FALSE(expected.sReason.empty());
    EXPECT_EQ(Count("InitializeFeatureList failed"), 1u);
    EXPECT_FALSE(Find("AssemblyIdentity node not found for current assembly.").has_value());
}

TEST_F(AssemblyTest, MissingTableFileFailsWithItsPath)
{
    CCAssembly assembly;
    EXPECT_FALSE(assembly.Initialize("Feat", "1.0", "Ctx"));
    const auto line = Find("Error loading dependency table");
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ((*line)[8].rfind("path='" + TablePath() + "', Line=", 0), 0u) << (*line)[8];
}

TEST_F(AssemblyTest, EnvironmentVariablesInTheTablesPathAreExpanded)
{
    WriteTable(Table(""));
    SetEnvironmentVariableA("MORADEL_TEST_DIR", Narrow(m_dir.Path()).c_str());
    m_common.Set("DependencyTables", "%MORADEL_TEST_DIR%\\", REG_EXPAND_SZ);
    CCAssembly assembly;
    EXPECT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));
    // The trailing backslash stays; none is added or removed.
    EXPECT_EQ(std::string(assembly.GetDependencyTablesPath()), Narrow(m_dir.Path()) + "\\");

    // The value's type is not checked: a plain REG_SZ is expanded as well.
    m_common.Set("DependencyTables", "%MORADEL_TEST_DIR%");
    CCAssembly plain;
    EXPECT_TRUE(plain.Initialize("Feat", "1.0", "Ctx"));
    EXPECT_EQ(std::string(plain.GetDependencyTablesPath()), Narrow(m_dir.Path()));
}

TEST_F(AssemblyTest, MissingTablesPathFailsTheCommonStep)
{
    WriteTable(Table(""));
    m_common.Remove("DependencyTables");
    CCAssembly assembly;
    EXPECT_FALSE(assembly.Initialize("Feat", "1.0", "Ctx"));
    const auto line = Find("Error accessing registry for getting deptables path");
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ((*line)[3], "Error");
    EXPECT_EQ((*line)[8], "Error: 2");
    EXPECT_EQ(Count("InitializeDependencyTablesPath failed"), 1u);
    EXPECT_EQ(Count("InitializeCommon failed"), 1u);
    // The feature step never ran.
    EXPECT_EQ(Count("Method InitializeFeature has been called"), 0u);
    EXPECT_FALSE(assembly.IsInitialized());
}

TEST_F(AssemblyTest, ComponentRootComesFromRegistryOrFeatureAttribute)
{
    const std::string sDependency = "<assemblyIdentity name=\"Lib\" version=\"3.1\"/>\n";
    struct RootCase {
        const char* szWhat;
        const char* szRegistry;  // nullptr: value missing
        const char* szAttributes;
        const char* szExpectedRoot;
        bool bWarning;
    } aCases[] = {
        {"registry", "C:\\Components", "", "C:\\Components", false},
        {"missing value is only a warning", nullptr, "", "", true},
        {"attribute wins", "C:\\Components", " rootFolder=\"D:\\Feature\"", "D:\\Feature", false},
        {"attribute without registry", nullptr, " rootFolder=\"D:\\Feature\"", "D:\\Feature", true},
        {"empty attribute keeps registry", "C:\\Components", " rootFolder=\"\"", "C:\\Components", false},
    };
    for (const RootCase& row : aCases) {
        SCOPED_TRACE(row.szWhat);
        WriteTable(Table(sDependency, "*", row.szAttributes));
        if (row.szRegistry)
            m_common.Set("ComponentRoot", row.szRegistry);
        else
            m_common.Remove("ComponentRoot");
        m_uMark = GlobalTraceLog::Get().Mark();
        CCAssembly assembly;
        EXPECT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));
        EXPECT_STREQ(assembly.GetComponentRoot(), row.szExpectedRoot);
        const auto& libraries = assembly.GetLibraryEntries();
        ASSERT_EQ(libraries.count("Lib"), 1u);
        EXPECT_EQ(std::string(libraries.at("Lib").szFolder), std::string(row.szExpectedRoot) + "\\Lib\\3.1\\Lib");
        const auto line = Find("Error accessing registry for getting GAC root");
        EXPECT_EQ(line.has_value(), row.bWarning);
        if (line) {
            EXPECT_EQ((*line)[3], "Warning");
            EXPECT_EQ((*line)[8], "Error: 2");
        }
    }
}

TEST_F(AssemblyTest, ComAndLibraryEntriesAreSortedIntoTheirMaps)
{
    WriteTable(Table("<assemblyIdentity name=\"Store\" version=\"1.2\" progID=\"Tess.Store.1\" "
                     "versionIndependentProgID=\"Tess.Store\"/>\n"
                     "<assemblyIdentity name=\"Helper.dll\" version=\"4.0\"/>\n"
                     "<assemblyIdentity name=\"HalfCom\" version=\"5\" progID=\"Tess.Half.1\"/>\n"
                     "<assemblyIdentity name=\"HalfCom2\" versionIndependentProgID=\"Tess.Half2\"/>\n"
                     "<assemblyIdentity name=\"Store2\" version=\"1.3\" progID=\"Tess.Store.2\" "
                     "versionIndependentProgID=\"Tess.Store\"/>\n"
                     "<assemblyIdentity name=\"Helper.dll\" version=\"4.1\"/>\n"));
    CCAssembly assembly;
    ASSERT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));

    const auto& com = assembly.GetComEntries();
    ASSERT_EQ(com.size(), 1u);
    ASSERT_EQ(com.count("Tess.Store"), 1u);
    // The later entry with the same key replaced the earlier one.
    const CCDependencyRecord& store = com.at("Tess.Store");
    EXPECT_STREQ(store.szName, "Store2");
    EXPECT_STREQ(store.szVersion, "1.3");
    EXPECT_STREQ(store.szProgID, "Tess.Store.2");
    EXPECT_STREQ(store.szVersionIndependentProgID, "Tess.Store");
    EXPECT_STREQ(store.szFolder, "C:\\Components\\Store2\\1.3\\Store2");

    const auto& libraries = assembly.GetLibraryEntries();
    std::vector<std::string> keys;
    for (const auto& entry : libraries)
        keys.push_back(entry.first);
    EXPECT_EQ(keys, (std::vector<std::string>{"HalfCom", "HalfCom2", "Helper.dll"}));
    EXPECT_STREQ(libraries.at("Helper.dll").szVersion, "4.1");
    EXPECT_STREQ(libraries.at("HalfCom").szProgID, "Tess.Half.1");
    EXPECT_STREQ(libraries.at("HalfCom2").szVersion, "");
    EXPECT_STREQ(libraries.at("HalfCom2").szFolder, "C:\\Components\\HalfCom2\\\\HalfCom2");

    std::vector<std::string> comTexts;
    std::vector<std::string> libraryTexts;
    for (const auto& fields : Lines()) {
        if (fields.size() < 9)
            continue;
        if (fields[7] == "Com entry found" || fields[7] == "Win32 dll entry found") {
            EXPECT_EQ(fields[3], "VerboseCC");
            EXPECT_EQ(fields[6], "Internal");
        }
        if (fields[7] == "Com entry found")
            comTexts.push_back(fields[8]);
        else if (fields[7] == "Win32 dll entry found")
            libraryTexts.push_back(fields[8]);
    }
    const std::string sCaller = std::string("caller unit_tests.exe V") + kFileVersion + ": ";
    EXPECT_EQ(comTexts, (std::vector<std::string>{
                            sCaller + "name Store, version 1.2, progId Tess.Store.1, viProgId Tess.Store",
                            sCaller + "name Store2, version 1.3, progId Tess.Store.2, viProgId Tess.Store"}));
    EXPECT_EQ(libraryTexts, (std::vector<std::string>{sCaller + "name Helper.dll, version 4.0",
                                                      sCaller + "name HalfCom, version 5",
                                                      sCaller + "name HalfCom2, version ",
                                                      sCaller + "name Helper.dll, version 4.1"}));
}

TEST_F(AssemblyTest, GettersReturnTheStoredTexts)
{
    WriteTable(Table(""));
    CCAssembly assembly;
    ASSERT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));
    struct GetterCase {
        bool (CCAssembly::*pfnGet)(char*, size_t);
        const char* szExpected;
        const char* szTraced;
    } aCases[] = {
        {&CCAssembly::GetFeatureName, "Feat", "szFeatureName: Feat"},
        {&CCAssembly::GetFeatureVersion, "1.0", "szFeatureVersion: 1.0"},
        {&CCAssembly::GetContextName, "Ctx", "szContextName: Ctx"},
    };
    for (const GetterCase& row : aCases) {
        SCOPED_TRACE(row.szExpected);
        m_uMark = GlobalTraceLog::Get().Mark();
        char szBuffer[CCAssembly::kTextChars];
        memset(szBuffer, 'Z', sizeof(szBuffer));
        EXPECT_TRUE((assembly.*row.pfnGet)(szBuffer, sizeof(szBuffer)));
        EXPECT_STREQ(szBuffer, row.szExpected);
        bool bTraced = false;
        for (const auto& fields : Lines())
            bTraced = bTraced || (fields.size() >= 9 && fields[8] == row.szTraced);
        EXPECT_TRUE(bTraced);
        // A small buffer gets a terminated prefix and a false result, and nothing beyond it is touched.
        memset(szBuffer, 'Z', sizeof(szBuffer));
        EXPECT_FALSE((assembly.*row.pfnGet)(szBuffer, 3));
        EXPECT_EQ(std::string(szBuffer), std::string(row.szExpected, 2));
        EXPECT_EQ(szBuffer[3], 'Z');
    }
}

TEST_F(AssemblyTest, LongNamesAreCutWithoutOverrun)
{
    WriteTable(Table(""));
    const std::string sLong(300, 'n');
    struct LongCase {
        const char* szWhat;
        std::string sFeature, sVersion, sContext;
    } aCases[] = {
        {"feature", sLong, "1.0", "Ctx"},
        {"version", "Feat", sLong, "Ctx"},
        {"context", "Feat", "1.0", sLong},
    };
    for (const LongCase& row : aCases) {
        SCOPED_TRACE(row.szWhat);
        m_uMark = GlobalTraceLog::Get().Mark();
        CCAssembly assembly;
        EXPECT_FALSE(assembly.Initialize(row.sFeature.c_str(), row.sVersion.c_str(), row.sContext.c_str()));
        char szFeature[CCAssembly::kTextChars + 8];
        char szVersion[CCAssembly::kTextChars + 8];
        char szContext[CCAssembly::kTextChars + 8];
        memset(szFeature, 'Z', sizeof(szFeature));
        assembly.GetFeatureName(szFeature, sizeof(szFeature));
        assembly.GetFeatureVersion(szVersion, sizeof(szVersion));
        assembly.GetContextName(szContext, sizeof(szContext));
        // Stored texts are cut to 259 characters; the neighbouring fields are intact.
        EXPECT_EQ(std::string(szFeature), row.sFeature.substr(0, 259));
        EXPECT_EQ(std::string(szVersion), row.sVersion.substr(0, 259));
        EXPECT_EQ(std::string(szContext), row.sContext.substr(0, 259));
        EXPECT_STREQ(assembly.GetModuleFile(), kModuleFile);
        EXPECT_STREQ(assembly.GetFileVersion(), kFileVersion);
        EXPECT_STREQ(assembly.GetComponentRoot(), row.sContext == sLong ? "C:\\Components" : "");
    }
}

TEST_F(AssemblyTest, LongRegistryAndTableTextsAreBounded)
{
    const std::string sLong(300, 'r');
    WriteTable(Table("<assemblyIdentity name=\"" + sLong + "\" version=\"" + sLong + "\"/>\n", "*",
                     " rootFolder=\"" + sLong + "\""));
    m_common.Set("ComponentRoot", "C:\\" + sLong);
    CCAssembly assembly;
    EXPECT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));
    // A ComponentRoot value over 260 bytes cannot be read: warning, then the attribute is used, cut.
    const auto warning = Find("Error accessing registry for getting GAC root");
    ASSERT_TRUE(warning.has_value());
    EXPECT_EQ((*warning)[8], "Error: " + std::to_string(ERROR_MORE_DATA));
    EXPECT_EQ(std::string(assembly.GetComponentRoot()), sLong.substr(0, 259));
    const auto& libraries = assembly.GetLibraryEntries();
    ASSERT_EQ(libraries.size(), 1u);
    const CCDependencyRecord& record = libraries.begin()->second;
    EXPECT_EQ(libraries.begin()->first, sLong.substr(0, 259));
    EXPECT_EQ(strnlen(record.szFolder, sizeof(record.szFolder)), 259u);
    EXPECT_EQ(std::string(record.szFolder), sLong.substr(0, 259));

    struct PathCase {
        const char* szWhat;
        std::string sValue;
        long lError;
    } aPaths[] = {
        {"value over 260 bytes", "C:\\" + sLong, ERROR_MORE_DATA},
        {"expansion over 260 characters", "%MORADEL_TEST_DIR%\\%MORADEL_TEST_DIR%", ERROR_INSUFFICIENT_BUFFER},
    };
    SetEnvironmentVariableA("MORADEL_TEST_DIR", std::string(200, 'e').c_str());
    for (const PathCase& row : aPaths) {
        SCOPED_TRACE(row.szWhat);
        m_common.Set("DependencyTables", row.sValue);
        m_uMark = GlobalTraceLog::Get().Mark();
        CCAssembly cut;
        EXPECT_FALSE(cut.Initialize("Feat", "1.0", "Ctx"));
        const auto line = Find("Error accessing registry for getting deptables path");
        ASSERT_TRUE(line.has_value());
        EXPECT_EQ((*line)[8], "Error: " + std::to_string(row.lError));
        EXPECT_STREQ(cut.GetDependencyTablesPath(), "");
    }
}

TEST_F(AssemblyTest, TablePathTooLongFailsInsteadOfOpeningACutName)
{
    // Short enough to be stored whole, too long for the 260-character table path.
    const std::string sFeature(230, 'f');
    ASSERT_GT(m_dir.Path().size() + sFeature.size() + 8, CCAssembly::kTextChars);
    CCAssembly assembly;
    EXPECT_FALSE(assembly.Initialize(sFeature.c_str(), "1.0", "Ctx"));
    const auto line = Find("Error loading dependency table");
    ASSERT_TRUE(line.has_value());
    EXPECT_NE((*line)[8].find("reason='path too long'"), std::string::npos) << (*line)[8];
    char szFeature[CCAssembly::kTextChars] = {};
    EXPECT_TRUE(assembly.GetFeatureName(szFeature));
    EXPECT_EQ(szFeature, sFeature);
}

TEST_F(AssemblyTest, EntryAndExitAreTracedAtInfoCC)
{
    WriteTable(Table(""));
    {
        CCAssembly assembly;
        EXPECT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));
    }
    const auto constructed = Find("An instance of CCAssembly has been constructed");
    const auto enter = Find("Method Initialize has been called");
    const auto leave = Find("Method Initialize has been left.");
    const auto destructed = Find("An instance of CCAssembly has been destructed");
    ASSERT_TRUE(constructed && enter && leave && destructed);
    for (const auto* pLine : {&*constructed, &*enter, &*leave, &*destructed}) {
        EXPECT_EQ((*pLine)[3], "InfoCC");
        EXPECT_EQ((*pLine)[4], "CCAssembly");
    }
    EXPECT_EQ((*enter)[5], "Initialize");
    EXPECT_EQ((*enter)[6], "Enter");
    EXPECT_EQ((*enter)[8], "szFeatureName: Feat, szFeatureVersion: 1.0, szContextName: Ctx");
    EXPECT_EQ((*leave)[6], "Leave");
    EXPECT_EQ((*leave)[8], "bReturn: 1");
}

TEST_F(AssemblyTest, WithoutComTheDocumentCannotBeCreated)
{
    WriteTable(Table(""));
    bool bResult = true;
    // A fresh thread has no COM apartment; the component must not set one up itself.
    std::thread worker([&] {
        CCAssembly assembly;
        bResult = assembly.Initialize("Feat", "1.0", "Ctx");
    });
    worker.join();
    EXPECT_FALSE(bResult);
    const auto line = Find("Failed to create MSXML2.Dom object to parse XML.");
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ((*line)[3], "Error");
    unsigned hr = 0;
    ASSERT_EQ(sscanf((*line)[8].c_str(), "hr: 0x%08X", &hr), 1) << (*line)[8];
    EXPECT_TRUE(FAILED(static_cast<HRESULT>(hr))) << std::hex << hr;
    char szExpected[512];
    snprintf(szExpected, sizeof(szExpected), "hr: 0x%08X, '%s'", hr, GetErrorText(hr));
    EXPECT_EQ((*line)[8], szExpected);
}

TEST_F(AssemblyTest, DllInitializeHoldsTheNamedMutexUntilUninitialize)
{
    WriteTable(Table(""));
    CCAssembly assembly;
    ASSERT_EQ(assembly.DllInitialize("Feat", "1.0", "Ctx"), 1);
    char szName[MAX_PATH];
    snprintf(szName, sizeof(szName), "CCAssembly_PID_%8.8lx_unit_tests.exe_%s", GetCurrentProcessId(), kFileVersion);
    EXPECT_EQ(assembly.MutexName(), szName);
    HANDLE hMutex = OpenMutexA(SYNCHRONIZE, FALSE, szName);
    ASSERT_NE(hMutex, nullptr) << GetLastError();
    auto OtherThreadGets = [hMutex] {
        DWORD dwWait = WAIT_FAILED;
        std::thread other([&] {
            dwWait = WaitForSingleObject(hMutex, 0);
            if (dwWait == WAIT_OBJECT_0 || dwWait == WAIT_ABANDONED)
                ReleaseMutex(hMutex);
        });
        other.join();
        return dwWait == WAIT_OBJECT_0;
    };
    EXPECT_FALSE(OtherThreadGets());
    EXPECT_TRUE(assembly.DllUninitialize());
    EXPECT_TRUE(OtherThreadGets());
    CloseHandle(hMutex);
}

TEST_F(AssemblyTest, ComponentForwardsBstrsToTheAssembly)
{
    WriteTable(Table(""));
    CCAssembly assembly;
    CCComponentT<CCAssembly> component(assembly);
    EXPECT_EQ(component.Get(), &assembly);
    CCBstr bstrFeature(L"Feat");
    CCBstr bstrVersion(L"1.0");
    CCBstr bstrContext(L"Ctx");
    EXPECT_TRUE(component.Initialize(bstrFeature.Get(), bstrVersion.Get(), bstrContext.Get()));
    char szContext[CCAssembly::kTextChars] = {};
    EXPECT_TRUE(component->GetContextName(szContext));
    EXPECT_STREQ(szContext, "Ctx");
    // No mutex on this path.
    HANDLE hMutex = OpenMutexA(SYNCHRONIZE, FALSE, assembly.MutexName().c_str());
    EXPECT_EQ(hMutex, nullptr);
    if (hMutex)
        CloseHandle(hMutex);

    // Null BSTRs are empty texts: no table "_.xml" exists, so this fails cleanly.
    EXPECT_FALSE(component.Initialize(static_cast<BSTR>(nullptr), nullptr, nullptr));
    char szFeature[CCAssembly::kTextChars] = {};
    component->GetFeatureName(szFeature);
    EXPECT_STREQ(szFeature, "");
}

}  // namespace
