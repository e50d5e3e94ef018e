#include "platform/qkctl.h"

#include <cerrno>

#include "host/options.h"
#include "hostFixture.h"
#include "platform/hostctl.h"

namespace {

using HostCtl::Lib::HostCtlException;
using HostCtl::Network::NetworkFactory;
using QkCtl::Adv::AdvancedIntegerOptionImpl;
using QkCtl::Util::Sysinfo;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class HostCtlLibrary : public HostTest {};
class QkCtlLibrary : public HostTest {};

template <typename Call>
HostCtlException thrownBy(const Call& call) {
  try {
    call();
  } catch (const HostCtlException& thrown) {
    return thrown;
  }
  ADD_FAILURE() << "nothing was thrown";
  return HostCtlException("nothing was thrown", 0);
}

TEST_F(HostCtlLibrary, APortGroupIsFoundByItsName) {
  model_.write(R"({"portGroups": {"Production": "switch0"}})");
  const auto group = NetworkFactory::GetPortGroupByName("Production");
  EXPECT_EQ(group.GetName(), "Production");
  EXPECT_EQ(group.GetVirtualSwitchName(), "switch0");
}

TEST_F(HostCtlLibrary, AMissingPortGroupThrowsWithItsName) {
  const auto thrown = thrownBy([] { (void)NetworkFactory::GetPortGroupByName("Absent"); });
  EXPECT_STREQ(thrown.what(), "port group \"Absent\": the model has no such port group");
  EXPECT_EQ(thrown.status(), ENOENT);
}

TEST_F(HostCtlLibrary, AFailedLookUpThrowsWithItsStatus) {
  model_.write(R"({"portGroups": {"Production": "switch0"}, "failures": {"portGroup.lookup": 77}})");
  EXPECT_EQ(thrownBy([] { (void)NetworkFactory::GetPortGroupByName("Production"); }).status(), 77);
  model_.write(R"({"failures": {"portGroup.lookup": "busy elsewhere"}})");
  EXPECT_STREQ(thrownBy([] { (void)NetworkFactory::GetPortGroupByName("P"); }).what(),
               "port group \"P\": busy elsewhere");
}

TEST_F(QkCtlLibrary, AnOptionIsReadAnewEachTime) {
  const AdvancedIntegerOptionImpl option({"Net"}, "LinkFlappingThreshold");
  EXPECT_EQ(option.GetValue(), 0);
  ASSERT_TRUE(platform::setOption("Net/LinkFlappingThreshold", 9000000000).ok());
  EXPECT_EQ(option.GetValue(), 9000000000);
}

TEST_F(QkCtlLibrary, AnOptionThatCannotBeReadThrows) {
  EXPECT_EQ(thrownBy([] { (void)AdvancedIntegerOptionImpl({"Net", "Deep"}, "Other").GetValue(); }).status(), ENOENT);
  EXPECT_STREQ(thrownBy([] {
                 (void)AdvancedIntegerOptionImpl({"Net", "Deep"}, "Other").GetValue();
               }).what(),
               "option Net/Deep/Other: no such option");
  model_.write(R"({"failures": {"option.read:Net/LinkFlappingThreshold": 5}})");
  EXPECT_EQ(thrownBy([] { (void)AdvancedIntegerOptionImpl({"Net"}, "LinkFlappingThreshold").GetValue(); }).status(), 5);
}

TEST_F(QkCtlLibrary, SysinfoTakesAFlappingNicDown) {
  Sysinfo node(VSI_NODE_net_pNics_linkFlapping);
  node.AddInstancePath("vmnic0");
  node.AddInput(1);
  node.Set();
  EXPECT_THAT(model_.actions(), ElementsAre(R"({"action":"nic.down","nic":"vmnic0"})"));
}

TEST_F(QkCtlLibrary, SysinfoThrowsWhereTheKernelRefuses) {
  model_.write(R"({"failures": {"nic.down": 5}})");
  Sysinfo node(VSI_NODE_net_pNics_linkFlapping);
  node.AddInstancePath("vmnic0");
  node.AddInput(1);
  const auto thrown = thrownBy([&] { node.Set(); });
  EXPECT_STREQ(thrown.what(), "system information node net_pNics_linkFlapping: set: Input/output error");
  EXPECT_EQ(thrown.status(), 5);
  EXPECT_THAT(model_.actions(), IsEmpty());
}

TEST_F(QkCtlLibrary, SysinfoReadsTheNameOfAGroupsVm) {
  model_.write(R"({"vms": [{"worldId": 4711, "groupId": 12, "name": "web01"}]})");
  Sysinfo node(VSI_NODE_vm_vmmGroupInfo);
  node.SetInstance(99);
  node.SetInstance(12);
  VSI_VmmGroupInfo info{};
  node.Get(&info, sizeof info);
  EXPECT_STREQ(info.displayName, "web01");
  model_.write(R"({"vms": [{"groupId": 12, "name": "web01"}], "failures": {"vm.name": 77}})");
  EXPECT_EQ(thrownBy([&] { node.Get(&info, sizeof info); }).status(), 77);
}

}  // namespace
