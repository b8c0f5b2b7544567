// Serialisation round trips, state.mof with puts and deletes, loading a repository folder.
#include "CimTestSupport.h"

#include "TempDir.h"
#include "cimstore/MofCompiler.h"
#include "cimstore/MofWriter.h"
#include "cimstore/RepositoryFolder.h"

using namespace cimstore;
using namespace cimtest;

namespace {

// Same namespaces and, in each, the same instances written out as MOF.
void ExpectSameInstances(const CimRepository& a, const CimRepository& b)
{
    ASSERT_EQ(a.Namespaces(), b.Namespaces());
    for (const std::wstring& ns : a.Namespaces()) {
        std::wstring left, right;
        EXPECT_EQ(a.SerializeNamespace(ns, false, left), S_OK);
        EXPECT_EQ(b.SerializeNamespace(ns, false, right), S_OK);
        EXPECT_EQ(left, right) << Narrow(ns);
    }
}

TEST(cimstorePersistence, NamespaceMofRoundTrips)
{
    CimRepository original(kServer);
    ASSERT_EQ(LoadFixture(original).hr, S_OK);
    for (const wchar_t* wszNs : {L"root\\cimv2", L"root\\cimv2\\sub"}) {
        std::wstring first;
        ASSERT_EQ(original.SerializeNamespace(wszNs, true, first), S_OK);
        CimRepository copy(kServer);
        const MofResult result = copy.CompileText(first, L"roundtrip.mof", wszNs);
        ASSERT_EQ(result.hr, S_OK) << Narrow(result.message) << "\n" << Narrow(first);
        std::wstring second;
        ASSERT_EQ(copy.SerializeNamespace(wszNs, true, second), S_OK);
        EXPECT_EQ(second, first);
    }
}

TEST(cimstorePersistence, InstanceTextEscapesEverything)
{
    const wchar_t* wszClass = L"class E { [key] string K; string V; real64 R; real32 S; };";
    CimRepository repository(kServer);
    CimRepository copy(kServer);
    ASSERT_EQ(repository.CompileText(wszClass, L"e.mof").hr, S_OK);
    ASSERT_EQ(copy.CompileText(wszClass, L"e.mof").hr, S_OK);
    CimInstance instance;
    ASSERT_EQ(repository.SpawnInstance(L"root\\default", L"E", instance), S_OK);
    ASSERT_EQ(instance.Put(L"K", CimValue(L"q\"b\\n\nt\tc\x01" L"e\x263A")), S_OK);
    ASSERT_EQ(instance.Put(L"R", CimValue(0.1 + 0.2)), S_OK);
    ASSERT_EQ(instance.Put(L"S", CimValue(3.4e38)), S_OK);
    ASSERT_EQ(instance.Put(L"V", CimValue(L"")), S_OK);
    std::wstring text;
    WriteInstanceMof(instance, text);
    const MofResult result = copy.CompileText(text, L"text.mof");
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message) << "\n" << Narrow(text);
    std::vector<CimInstance> all;
    ASSERT_EQ(copy.EnumInstances(L"root\\default", L"E", all), S_OK);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_TRUE(all[0].Equals(instance, false)) << Narrow(text);
}

class cimstoreFolder : public testing::Test {
protected:
    void SetUp() override
    {
        for (const wchar_t* wszName : {L"schema.mof", L"data.mof"})
            ASSERT_TRUE(CopyFileW(Fixture(wszName).c_str(), m_dir.File(wszName).c_str(), FALSE)) << GetLastError();
    }
    std::wstring ReadState()
    {
        std::wstring text;
        EXPECT_EQ(ReadTextFile(m_dir.File(kStateFileName), text), S_OK);
        return text;
    }
    void Load(CimRepository& repository)
    {
        const MofResult result = LoadRepositoryFolder(repository, m_dir.Path());
        ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    }
    void Write(const wchar_t* wszName, const wchar_t* wszText)
    {
        ASSERT_EQ(WriteFileAtomically(m_dir.File(wszName), wszText), S_OK) << Narrow(m_dir.File(wszName));
    }
    TempDir m_dir;
};

TEST_F(cimstoreFolder, StateKeepsPutsAndDeletesAcrossReloads)
{
    CimRepository first(kServer);
    ASSERT_NO_FATAL_FAILURE(Load(first));
    EXPECT_EQ(first.TrackedChangeCount(), 0u) << "MOF files are not changes";
    CimInstance spooler;
    ASSERT_EQ(first.GetInstance(kCimv2, L"Test_Service.Name=\"Spooler\"", spooler), S_OK);
    ASSERT_EQ(spooler.Put(L"Priority", CimValue(42)), S_OK);
    ASSERT_EQ(first.PutInstance(kCimv2, spooler), S_OK);
    for (const wchar_t* wszName : {L"Z:\\\"quoted\"", L"T:"}) {
        CimInstance added;
        ASSERT_EQ(first.SpawnInstance(kCimv2, L"Test_Disk", added), S_OK);
        ASSERT_EQ(added.Put(L"Name", CimValue(wszName)), S_OK);
        ASSERT_EQ(first.PutInstance(kCimv2, added), S_OK);
    }
    ASSERT_EQ(first.DeleteInstance(kCimv2, L"Test_Service.Name=\"W3SVC\""), S_OK);
    ASSERT_EQ(first.DeleteInstance(L"root\\cimv2\\sub", L"Test_Local.Id=-1"), S_OK);
    // Put then delete of the same instance leaves only the delete.
    ASSERT_EQ(first.DeleteInstance(kCimv2, L"Test_Disk.Name=\"T:\""), S_OK);
    EXPECT_EQ(first.TrackedChangeCount(), 5u);
    ASSERT_EQ(SaveRepositoryState(first, m_dir.Path()), S_OK);
    EXPECT_FALSE(FileExists(m_dir.File(L"state.mof.tmp")));
    const std::wstring state = ReadState();
    EXPECT_NE(state.find(L"#pragma deleteinstance(\"Test_Service.Name=\\\"W3SVC\\\"\", NOFAIL)"), std::wstring::npos)
        << Narrow(state);
    EXPECT_NE(state.find(L"Priority = 42;"), std::wstring::npos) << Narrow(state);
    CimRepository second(kServer);
    ASSERT_NO_FATAL_FAILURE(Load(second));
    ExpectSameInstances(first, second);
    // The delete of T:, which no MOF file defines, has nothing left to do and drops out.
    EXPECT_EQ(second.TrackedChangeCount(), 4u) << "state.mof's changes are kept for the next save";
    ASSERT_EQ(second.DeleteInstance(kCimv2, L"Test_Disk.Name=\"D:\""), S_OK);
    ASSERT_EQ(SaveRepositoryState(second, m_dir.Path()), S_OK);
    CimRepository third(kServer);
    ASSERT_NO_FATAL_FAILURE(Load(third));
    CimInstance gone;
    EXPECT_EQ(third.GetInstance(kCimv2, L"Test_Service.Name=\"W3SVC\"", gone), Hr(WBEM_E_NOT_FOUND));
    EXPECT_EQ(third.GetInstance(kCimv2, L"Test_Disk.Name=\"D:\"", gone), Hr(WBEM_E_NOT_FOUND));
}

TEST_F(cimstoreFolder, FilesCompileInNameOrderWithStateLast)
{
    // "A_first" sorts before "data.mof" and "schema.mof"; its class is needed by z_last.mof.
    Write(L"A_first.mof", L"#pragma namespace(\"root\\\\order\")\nclass O { [key] uint32 Id; string Who; };\n"
                          L"instance of O { Id = 1; Who = \"A_first\"; };\n");
    Write(L"z_last.mof", L"#pragma namespace(\"root\\\\order\")\ninstance of O { Id = 1; Who = \"z_last\"; };\n");
    Write(kStateFileName, L"#pragma namespace(\"root\\\\order\")\ninstance of O { Id = 1; Who = \"state\"; };\n");
    CimRepository repository(kServer);
    ASSERT_NO_FATAL_FAILURE(Load(repository));
    CimInstance o;
    ASSERT_EQ(repository.GetInstance(L"root\\order", L"O.Id=1", o), S_OK);
    CimValue who;
    ASSERT_EQ(o.Get(L"Who", who), S_OK);
    EXPECT_TRUE(who == CimValue(L"state"));
    EXPECT_EQ(repository.TrackedChangeCount(), 1u);
}

TEST_F(cimstoreFolder, BrokenFileFailsTheWholeLoad)
{
    CimRepository repository(kServer);
    ASSERT_EQ(repository.CreateNamespace(L"root\\keep"), S_OK);
    Write(L"zz_broken.mof", L"#pragma namespace(\"root\\\\cimv2\")\ninstance of Test_Disk { Name = 1; };\n");
    const MofResult result = LoadRepositoryFolder(repository, m_dir.Path());
    EXPECT_EQ(result.hr, Hr(WBEM_E_TYPE_MISMATCH)) << Narrow(result.message);
    EXPECT_NE(result.message.find(L"zz_broken.mof:2:32: "), std::wstring::npos) << Narrow(result.message);
    EXPECT_FALSE(repository.HasNamespace(kCimv2));
    EXPECT_TRUE(repository.HasNamespace(L"root\\keep"));
}

TEST_F(cimstoreFolder, SaveReplacesTheStateFile)
{
    CimRepository repository(kServer);
    ASSERT_NO_FATAL_FAILURE(Load(repository));
    ASSERT_EQ(SaveRepositoryState(repository, m_dir.Path()), S_OK);
    EXPECT_EQ(ReadState(), L"");
    ASSERT_EQ(repository.DeleteInstance(kCimv2, L"Test_Setting=@"), S_OK);
    // A save that fails between writing and publishing keeps the former state file.
    const HRESULT hr = SaveRepositoryState(repository, m_dir.Path(), [] { return Hr(WBEM_E_FAILED); });
    EXPECT_EQ(hr, Hr(WBEM_E_FAILED));
    EXPECT_EQ(ReadState(), L"");
    EXPECT_FALSE(FileExists(m_dir.File(L"state.mof.tmp")));
    ASSERT_EQ(SaveRepositoryState(repository, m_dir.Path()), S_OK);
    EXPECT_NE(ReadState().find(L"Test_Setting=@"), std::wstring::npos);
    const std::wstring missing = m_dir.File(L"missing\\folder");
    EXPECT_EQ(SaveRepositoryState(repository, missing), HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
}

}  // namespace
