// dbus_manager_test.cpp - CDBusManager on the bus: its name, its object, the engine, and the end of all
// three.
#include "BillingEngine.h"
#include "BillingTaskBase.h"
#include "allocation_switch.h"
#include "dbus_manager_doubles.h"

#include <gmock/gmock.h>

using ::testing::ElementsAre;

namespace {

TEST_F(ADBusManager, BeginsWithNothing)
{
    EXPECT_EQ(DBusManagerProbe::node(m_oManager), nullptr);
    EXPECT_EQ(DBusManagerProbe::connection(m_oManager), nullptr);
    EXPECT_EQ(DBusManagerProbe::engine(m_oManager), nullptr);
    EXPECT_EQ(DBusManagerProbe::ownId(m_oManager), 0u);
    EXPECT_EQ(DBusManagerProbe::registerId(m_oManager), 0u);
    const GDBusInterfaceVTable& tVTable = DBusManagerProbe::vtable(m_oManager);
    EXPECT_EQ(tVTable.method_call, &CDBusManager::m_HandleMethodCall);
    EXPECT_EQ(tVTable.get_property, nullptr);
    EXPECT_EQ(tVTable.set_property, nullptr);
}

TEST_F(ADBusManager, AsksForItsNameOnTheSystemBusWithoutFlags)
{
    EXPECT_TRUE(m_oManager.Initialize());

    EXPECT_EQ(Bus().eFlags, G_BUS_NAME_OWNER_FLAGS_NONE);
    EXPECT_EQ(Bus().pOwnData, &m_oManager);
    EXPECT_EQ(DBusManagerProbe::ownId(m_oManager), 7u);
    EXPECT_THAT(Timeline(), ElementsAre(Did("parse"), Did("own org.plevo.billingservice"),
                                        MANAGER.info("Initialize", "m_uBSBusOwnID = 7")));
}

TEST_F(ADBusManager, RefusesAnInterfaceThatCannotBeParsed)
{
    Bus().bXmlFails = true;

    EXPECT_FALSE(m_oManager.Initialize());

    EXPECT_THAT(Timeline(),
                ElementsAre(Did("parse"), MANAGER.refused("Initialize", "NULL == m_pBSBusNode")));
}

std::string Arguments(GDBusArgInfo** ppArguments)
{
    std::string strArguments;
    for (; ppArguments != nullptr && *ppArguments != nullptr; ++ppArguments) {
        strArguments += (*ppArguments)->signature + std::string(" ") + (*ppArguments)->name + ", ";
    }
    return strArguments;
}

TEST_F(ADBusManager, DescribesItsFiveMethodsExactly)
{
    ASSERT_TRUE(m_oManager.Initialize());
    GDBusInterfaceInfo** ppInterfaces = DBusManagerProbe::node(m_oManager)->interfaces;
    ASSERT_NE(ppInterfaces[0], nullptr);
    EXPECT_EQ(ppInterfaces[1], nullptr);
    std::vector<std::string> methods;
    for (GDBusMethodInfo** pp = ppInterfaces[0]->methods; *pp != nullptr; ++pp) {
        methods.push_back((*pp)->name + std::string(": ") + Arguments((*pp)->in_args));
        EXPECT_EQ(Arguments((*pp)->out_args), "i resp_result, s resp_info, ");
    }

    EXPECT_STREQ(ppInterfaces[0]->name, "org.plevo.billingservice");
    EXPECT_THAT(methods,
                ElementsAre("get_product_list: s appid, s serverType, s CheckValue, ",
                            "get_purchase_history: s appid, s customId, s ItemType, s PageNumber, "
                            "s CheckValue, s serverType, ",
                            "get_applied_time: s appid, s customId, s invoiceid, s serverType, ",
                            "confirm_purchase: s appid, s customId, s invoiceid, s serverType, ",
                            "check_server_availability: "));
    EXPECT_EQ(ppInterfaces[0]->signals[0], nullptr);
    EXPECT_EQ(ppInterfaces[0]->properties[0], nullptr);
}

TEST_F(ADBusManager, PublishesItsObjectWhenTheBusIsThere)
{
    ASSERT_TRUE(m_oManager.Initialize());
    fake::platform().clearTimeline();
    auto* pConnection = reinterpret_cast<GDBusConnection*>(&m_invocation);

    CDBusManager::m_BusAcquired(pConnection, "name", &m_oManager);

    EXPECT_THAT(Timeline(),
                ElementsAre(MANAGER.info("m_BusAcquired", "Bus acquired, creating manager..."),
                            Did("filter"), Did("register /org/plevo/billingservice"),
                            MANAGER.info("m_BusAcquired", "m_pBSBusRegisterID = 3\n")))
        << "what guards the connection is there before a call can come";
    EXPECT_EQ(Bus().pFiltered, pConnection);
    EXPECT_EQ(Bus().pConnection, pConnection);
    EXPECT_EQ(Bus().ptInterface, DBusManagerProbe::node(m_oManager)->interfaces[0]);
    EXPECT_EQ(Bus().ptVTable, &DBusManagerProbe::vtable(m_oManager));
    EXPECT_EQ(Bus().pRegisterData, &m_oManager);
    EXPECT_EQ(DBusManagerProbe::connection(m_oManager), pConnection);
    EXPECT_EQ(DBusManagerProbe::registerId(m_oManager), 3u);
}

TEST_F(ADBusManager, OnlyLogsThatItsObjectCouldNotBePublished)
{
    ASSERT_TRUE(m_oManager.Initialize());
    Bus().uRegisterId = 0;
    fake::platform().clearTimeline();
    auto* pConnection = reinterpret_cast<GDBusConnection*>(&m_invocation);

    CDBusManager::m_BusAcquired(pConnection, "name", &m_oManager);

    EXPECT_THAT(Timeline(),
                ElementsAre(MANAGER.info("m_BusAcquired", "Bus acquired, creating manager..."),
                            Did("filter"), Did("register /org/plevo/billingservice"),
                            MANAGER.info("m_BusAcquired", "m_pBSBusRegisterID = 0\n")));
    EXPECT_EQ(DBusManagerProbe::connection(m_oManager), pConnection);

    fake::platform().clearTimeline();
    m_oManager.m_DestoryDbusConnection();
    for (const Line& line : Timeline()) {
        EXPECT_EQ(line.strText.find("unregister"), std::string::npos) << line;
    }
}

TEST_F(ADBusManager, OnlyLogsWhatBecomesOfItsName)
{
    CDBusManager::m_NameAcquired(nullptr, "a.name", &m_oManager);
    CDBusManager::m_NameLost(nullptr, "a.name", &m_oManager);
    CDBusManager::m_NameLost(nullptr, nullptr, &m_oManager);

    EXPECT_THAT(
        Timeline(),
        ElementsAre(MANAGER.info("m_NameAcquired", "Service name 'a.name' was acquired"),
                    MANAGER.error("m_NameLost", "Could not acquire the 'a.name' service name"),
                    MANAGER.info("m_NameLost",
                                 "Could not get the system bus. Make sure the message bus daemon "
                                 "is running!")));
}

TEST_F(ADBusManager, StartsTheEngineBehindItsPipeWhateverTheEngineAnswers)
{
    EXPECT_TRUE(m_oManager.InitEcorePipe());

    EXPECT_THAT(Timeline(), ElementsAre(Did("engine RegisterPipeCallback"), Did("engine Create")));
    EXPECT_EQ(Engine().pPipeData, &m_oManager);
    EXPECT_EQ(DBusManagerProbe::engine(m_oManager), CBillingSingleton<CBillingEngine>::m_pObj);
}

TEST_F(ADBusManager, HasNoPipeWithoutMemoryForTheEngine)
{
    FailNothrowAllocation(1);

    EXPECT_FALSE(m_oManager.InitEcorePipe());

    EXPECT_EQ(Timeline(), Steps());
}

TEST_F(ADBusManager, DestroysTheEngineButKeepsTheBusUntilTheProcessEnds)
{
    auto* poManager = new CDBusManager();
    poManager->Initialize();
    GDBusNodeInfo* pNode = DBusManagerProbe::node(*poManager);
    poManager->InitEcorePipe();
    fake::platform().clearTimeline();

    delete poManager;

    EXPECT_THAT(Timeline(), ElementsAre(Did("engine Destroy"), Did("engine destruct")));
    EXPECT_EQ(CBillingSingleton<CBillingEngine>::m_pObj, nullptr);
    g_dbus_node_info_unref(pNode);
}

TEST_F(ADBusManager, DestroysNothingWithoutAnEngine)
{
    delete new CDBusManager();

    EXPECT_EQ(Timeline(), Steps());
}

TEST_F(ADBusManager, ReleasesTheBusOnRequestAndOnlyOnce)
{
    m_oManager.Initialize();
    CDBusManager::m_BusAcquired(reinterpret_cast<GDBusConnection*>(&m_invocation), "name",
                                &m_oManager);
    fake::platform().clearTimeline();
    const std::string strName = "m_DestoryDbusConnection";
    const Line tStart = MANAGER.info(strName, "Destory Dbus Connection Start...");
    const Line tEnd = MANAGER.info(strName, "Destory Dbus Connection End!");

    m_oManager.m_DestoryDbusConnection();
    m_oManager.m_DestoryDbusConnection();

    EXPECT_THAT(Timeline(),
                ElementsAre(tStart, MANAGER.info(strName, "unown_name m_uOwnID"), Did("unown 7"),
                            MANAGER.info(strName, "node_info_unref m_pBLNode"), Did("unref node"),
                            MANAGER.info(strName, "connection_unregister m_pBLConnection"),
                            Did("unregister 3"), tEnd, tStart, tEnd));
    EXPECT_EQ(DBusManagerProbe::node(m_oManager), nullptr);
    EXPECT_EQ(DBusManagerProbe::ownId(m_oManager), 0u);
    EXPECT_EQ(DBusManagerProbe::registerId(m_oManager), 0u);
}

TEST_F(ADBusManager, ReleasesNothingWhenInitializeFailed)
{
    Bus().bXmlFails = true;
    m_oManager.Initialize();
    fake::platform().clearTimeline();

    m_oManager.m_DestoryDbusConnection();

    EXPECT_THAT(
        Timeline(),
        ElementsAre(MANAGER.info("m_DestoryDbusConnection", "Destory Dbus Connection Start..."),
                    MANAGER.info("m_DestoryDbusConnection", "Destory Dbus Connection End!")));
}

}  // namespace
