// CimStore loaded with tests/fixtures/cimstore/objects.mof and a connection to its namespace.
#pragma once

#include "CimStoreTest.h"
#include "TempDir.h"
#include "WbemTestClient.h"

class ObjectsFixture : public CimStoreTest {
protected:
    void SetUp() override
    {
        CimStoreTest::SetUp();
        LoadFixture(L"cimstore\\objects.mof");
        ASSERT_EQ(ConnectWmi(L"root\\cimstoretest", m_pServices), S_OK);
    }
    void TearDown() override
    {
        m_pServices.Reset();
        CimStoreTest::TearDown();
    }

    Microsoft::WRL::ComPtr<IWbemServices> m_pServices;
};
