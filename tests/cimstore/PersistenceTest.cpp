// Serialisation round trips, state.mof with puts and deletes, loading a repository folder.
#include "CimTestSupport.h"

#include "TempDir.h"
#include "cimstore/MofCompiler.h"
#include "cimstore/MofWriter.h"
#include "cimstore/RepositoryFolder.h"

#include <gtest/gtest.h>

using namespace cimstore;
using namespace cimtest;

namespace {

// Every instance of every namespace, as sorted "namespace|path" entries plus the instances.
std::vector<std::pair<std::wstring, CimInstance>> Snapshot(const CimRepository& repository)
{
    std::vector<std::pair<std::wstring, CimInstance>> out;
    for (const std::wstring& ns : repository.Namespaces()) {
        std::vector<CimClassPtr> classes;
        EXPECT_EQ(repository.EnumClasses(ns, L"", true, classes), S_OK);
        for (const CimClassPtr& cls : classes) {
            if (cls->Parent())
                continue;
            std::vector<CimInstance> instances;
            EXPECT_EQ(repository.EnumInstances(ns, cls->Name(), instances), S_OK);
            for (CimInstance& instance : instances)
                out.emplace_back(Fold(ns) + L"|" + instance.RelPath(), std::move(instance));
        }
    }
    std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    return out;
}

void ExpectSameInstances(const CimRepository& a, const CimRepository& b)
{
    const auto left = Snapshot(a);
    const auto right = Snapshot(b);
    ASSERT_EQ(left.size(), right.size());
    for (size_t i = 0; i < left.size(); ++i) {
        EXPECT_EQ(left[i].first, right[i].first);
        EXPECT_TRUE(left[i].second.Equals(right[i].second, false)) << Narrow(left[i].first);
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
        std::vector<CimClassPtr> classes;
        ASSERT_EQ(original.EnumClasses(wszNs, L"", true, classes), S_OK);
        for (const CimClassPtr& cls : classes) {
            CimClassPtr copied;
            ASSERT_EQ(copy.GetClass(wszNs, cls->Name(), copied), S_OK) << Narrow(cls->Name());
            EXPECT_TRUE(copied->Qualifiers() == cls->Qualifiers()) << Narrow(cls->Name());
            ASSERT_EQ(copied->Properties().size(), cls->Properties().size()) << Narrow(cls->Name());
            for (size_t i = 0; i < cls->Properties().size(); ++i) {
                const CimProperty& p = cls->Properties()[i];
                const CimProperty& q = copied->Properties()[i];
                EXPECT_EQ(p.name, q.name);
                EXPECT_EQ(p.type, q.type) << Narrow(p.name);
                EXPECT_TRUE(p.defaultValue == q.defaultValue) << Narrow(p.name);
                EXPECT_TRUE(p.qualifiers == q.qualifiers) << Narrow(cls->Name()) << "." << Narrow(p.name);
                EXPECT_EQ(p.origin, q.origin) << Narrow(p.name);
                EXPECT_EQ(p.refClass, q.refClass) << Narrow(p.name);
            }
        }
    }
}

TEST(cimstorePersistence, InstanceTextEscapesEverything)
{
    CimRepository repository(kServer);
    ASSERT_EQ(repository.CompileText(L"class E { [key] string K; string V; real64 R; real32 S; };", L"e.mof").hr,
              S_OK);
    CimInstance instance;
    ASSERT_EQ(repository.SpawnInstance(L"root\\default", L"E", instance), S_OK);
    const std::wstring tricky = L"q\"b\\n\nt\tc\x01" L"e\x263A";
    ASSERT_EQ(instance.Put(L"K", CimValue(tricky)), S_OK);
    ASSERT_EQ(instance.Put(L"R", CimValue(0.1 + 0.2)), S_OK);
    ASSERT_EQ(instance.Put(L"S", CimValue(3.4e38)), S_OK);
    ASSERT_EQ(instance.Put(L"V", CimValue(L"")), S_OK);
    std::wstring text;
    WriteInstanceMof(instance, text);
    CimRepository copy(kServer);
    ASSERT_EQ(copy.CompileText(L"class E { [key] string K; string V; real64 R; real32 S; };", L"e.mof").hr, S_OK);
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
        for (const wchar_t* wszName : {L"schema.mof", L"data.mof"}) {
            ASSERT_TRUE(CopyFileW(Fixture(wszName).c_str(), m_dir.File(wszName).c_str(), FALSE)) << GetLastError();
        }
    }
    std::wstring ReadState()
    {
        std::wstring text;
        EXPECT_EQ(ReadTextFile(m_dir.File(kStateFileName), text), S_OK);
        return text;
    }
    TempDir m_dir;
};

TEST_F(cimstoreFolder, StateKeepsPutsAndDeletesAcrossReloads)
{
    CimRepository first(kServer);
    MofResult result = LoadRepositoryFolder(first, m_dir.Path());
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    EXPECT_EQ(first.TrackedChangeCount(), 0u) << "MOF files are not changes";

    CimInstance spooler;
    ASSERT_EQ(first.GetInstance(kCimv2, L"Test_Service.Name=\"Spooler\"", spooler), S_OK);
    ASSERT_EQ(spooler.Put(L"Priority", CimValue(42)), S_OK);
    ASSERT_EQ(first.PutInstance(kCimv2, spooler), S_OK);
    CimInstance added;
    ASSERT_EQ(first.SpawnInstance(kCimv2, L"Test_Disk", added), S_OK);
    ASSERT_EQ(added.Put(L"Name", CimValue(L"Z:\\\"quoted\"")), S_OK);
    ASSERT_EQ(first.PutInstance(kCimv2, added), S_OK);
    ASSERT_EQ(first.DeleteInstance(kCimv2, L"Test_Service.Name=\"W3SVC\""), S_OK);
    ASSERT_EQ(first.DeleteInstance(L"root\\cimv2\\sub", L"Test_Local.Id=-1"), S_OK);
    // Put then delete of the same instance leaves only the delete.
    CimInstance temporary;
    ASSERT_EQ(first.SpawnInstance(kCimv2, L"Test_Disk", temporary), S_OK);
    ASSERT_EQ(temporary.Put(L"Name", CimValue(L"T:")), S_OK);
    ASSERT_EQ(first.PutInstance(kCimv2, temporary), S_OK);
    ASSERT_EQ(first.DeleteInstance(kCimv2, L"Test_Disk.Name=\"T:\""), S_OK);
    EXPECT_EQ(first.TrackedChangeCount(), 5u);
    ASSERT_EQ(SaveRepositoryState(first, m_dir.Path()), S_OK);
    EXPECT_FALSE(FileExists(m_dir.File(L"state.mof.tmp")));
    const std::wstring state = ReadState();
    EXPECT_NE(state.find(L"#pragma deleteinstance(\"Test_Service.Name=\\\"W3SVC\\\"\", NOFAIL)"), std::wstring::npos)
        << Narrow(state);
    EXPECT_NE(state.find(L"Priority = 42;"), std::wstring::npos) << Narrow(state);

    CimRepository second(kServer);
    result = LoadRepositoryFolder(second, m_dir.Path());
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    ExpectSameInstances(first, second);
    // The delete of T:, which no MOF file defines, has nothing left to do and drops out.
    EXPECT_EQ(second.TrackedChangeCount(), 4u) << "state.mof's changes are kept for the next save";

    // A further change in the second session keeps the earlier ones.
    ASSERT_EQ(second.DeleteInstance(kCimv2, L"Test_Disk.Name=\"D:\""), S_OK);
    ASSERT_EQ(SaveRepositoryState(second, m_dir.Path()), S_OK);
    CimRepository third(kServer);
    result = LoadRepositoryFolder(third, m_dir.Path());
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    ExpectSameInstances(second, third);
    CimInstance gone;
    EXPECT_EQ(third.GetInstance(kCimv2, L"Test_Service.Name=\"W3SVC\"", gone), Hr(WBEM_E_NOT_FOUND));
    EXPECT_EQ(third.GetInstance(kCimv2, L"Test_Disk.Name=\"D:\"", gone), Hr(WBEM_E_NOT_FOUND));
}

TEST_F(cimstoreFolder, FilesCompileInNameOrderWithStateLast)
{
    // "a_first" sorts before "data.mof" and "schema.mof"; its class is needed by z_last.mof.
    ASSERT_EQ(WriteFileAtomically(m_dir.File(L"A_first.mof"), L"#pragma namespace(\"root\\\\order\")\n"
                                                                 L"class O { [key] uint32 Id; string Who; };\n"
                                                                 L"instance of O { Id = 1; Who = \"A_first\"; };\n"),
              S_OK);
    ASSERT_EQ(WriteFileAtomically(m_dir.File(L"z_last.mof"), L"#pragma namespace(\"root\\\\order\")\n"
                                                                L"instance of O { Id = 1; Who = \"z_last\"; };\n"),
              S_OK);
    ASSERT_EQ(WriteFileAtomically(m_dir.File(kStateFileName), L"#pragma namespace(\"root\\\\order\")\n"
                                                                  L"instance of O { Id = 1; Who = \"state\"; };\n"),
              S_OK);
    CimRepository repository(kServer);
    const MofResult result = LoadRepositoryFolder(repository, m_dir.Path());
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
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
    ASSERT_EQ(WriteFileAtomically(m_dir.File(L"zz_broken.mof"), L"#pragma namespace(\"root\\\\cimv2\")\n"
                                                                    L"instance of Test_Disk { Name = 1; };\n"),
              S_OK);
    const MofResult result = LoadRepositoryFolder(repository, m_dir.Path());
    EXPECT_EQ(result.hr, Hr(WBEM_E_TYPE_MISMATCH)) << Narrow(result.message);
    EXPECT_NE(result.message.find(L"zz_broken.mof:2:32: "), std::wstring::npos) << Narrow(result.message);
    EXPECT_FALSE(repository.HasNamespace(kCimv2));
    EXPECT_TRUE(repository.HasNamespace(L"root\\keep"));
}

TEST_F(cimstoreFolder, SaveReplacesTheStateFile)
{
    CimRepository repository(kServer);
    ASSERT_EQ(LoadRepositoryFolder(repository, m_dir.Path()).hr, S_OK);
    ASSERT_EQ(SaveRepositoryState(repository, m_dir.Path()), S_OK);
    EXPECT_EQ(ReadState(), L"");
    ASSERT_EQ(repository.DeleteInstance(kCimv2, L"Test_Setting=@"), S_OK);
    ASSERT_EQ(SaveRepositoryState(repository, m_dir.Path()), S_OK);
    EXPECT_NE(ReadState().find(L"Test_Setting=@"), std::wstring::npos);
    EXPECT_EQ(SaveRepositoryState(repository, m_dir.File(L"missing\\folder")), HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
}

}  // namespace
