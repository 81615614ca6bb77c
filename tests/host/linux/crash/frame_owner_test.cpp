#include "host/linux/crash/frame_owner.h"

#include <gtest/gtest.h>

namespace morvik::host {
namespace {

constexpr FrameOwner kApp = FrameOwner::kApp;
constexpr FrameOwner kKit = FrameOwner::kKit;
constexpr FrameOwner kSystem = FrameOwner::kSystem;

struct Named {
  const char* mangled;
  FrameOwner owner;
};

TEST(FrameOwner, IsWhatTheFunctionIsAMemberOf) {
  for (const Named& each : {Named{"main", kApp},
                            {"_Z4helpRN6morvik10MorvikCoreE", kApp},
                            {"_ZN4shop3buyERKN6morvik6ParamsE", kApp},
                            {"_ZZN4shop3buyEvENKUlvE_clEv", kApp},
                            {"_ZN6morvik7runtime4Host4stopEv", kKit},
                            {"_ZNK6morvik7runtime7Flushes4leftEv", kKit},
                            {"_ZZN6morvik7runtime4Host4stopEvENKUlvE_clEv", kKit},
                            {"_ZN12_GLOBAL__N_13buyEv", kApp},
                            {"__libc_start_main", kSystem},
                            {"_ZSt9terminatev", kSystem},
                            {"_ZN9__gnu_cxx27__verbose_terminate_handlerEv", kSystem},
                            {"_ZNSs6appendEPKc", kSystem},
                            {"", kApp}})
    EXPECT_EQ(ownerByName(each.mangled), each.owner) << each.mangled;
}

TEST(FrameOwner, OfAFunctionThatTheLibraryCallsForSomebodyIsThatSomebody) {
  for (
      const Named& each : {
          // std::function of lambdas
          Named{"_ZNSt17_Function_handlerIFvvEZN4shop2goERN6morvik10MorvikCoreEEUlvE_E9_M_invokeERKSt9_Any_data", kApp},
          {"_ZNSt17_Function_handlerIFvvEZN4shop2goERN6morvik10MorvikCoreEE3$_3E9_M_invokeERKSt9_Any_data", kApp},
          {"_ZNSt17_Function_handlerIFvRKN6morvik15DeliveryFailureEEZ4mainEUlS3_E_E9_M_invokeERKSt9_Any_dataS3_", kApp},
          {"_ZNSt17_Function_handlerIFvmEZ4mainE3$_7E9_M_invokeERKSt9_Any_dataOm", kApp},
          {"_ZNSt17_Function_handlerIFvvEZ4mainEUlvE_E9_M_invokeERKSt9_Any_data.cold", kApp},
          {"_ZNSt14_Function_base13_Base_managerIN4shop4HearEE10_M_destroyERSt9_Any_dataSt17integral_constantIbLb0EE",
           kApp},
          {"_ZNSt17_Function_handlerIFvvEZN6morvik4host3kitEiEUlvE_E9_M_invokeERKSt9_Any_data", kKit},
          {"_ZNSt17_Function_handlerIFvvEZN6morvik4host12_GLOBAL__N_14anonEiE3$_0E9_M_invokeERKSt9_Any_data", kKit},
          {"_ZNSt17_Function_handlerIFvP7sqlite3EZN6morvik4host3kitES1_EUlS1_E_E9_M_invokeERKSt9_Any_dataOS1_", kKit},
          // of other objects
          {"_ZNSt17_Function_handlerIFvvEN4shop12_GLOBAL__N_11XEE9_M_invokeERKSt9_Any_data", kApp},
          {"_ZNSt17_Function_handlerIFvvEN12_GLOBAL__N_11XEE9_M_invokeERKSt9_Any_data", kApp},
          {"_ZNSt17_Function_handlerIFvvESt5_BindIFZN4shop2goERN6morvik10MorvikCoreEEUliE2_iEEE9_M_invokeERKSt9_Any_data",
           kApp},
          {"_ZSt13__invoke_implIvRZN4shop2goEvEUlvE_JEET_St14__invoke_otherOT0_DpOT1_", kApp},
          // shared objects, threads
          {"_ZNSt23_Sp_counted_ptr_inplaceIN4shop4CartESaIvELN9__gnu_cxx12_Lock_policyE2EE10_M_disposeEv", kApp},
          {"_ZNSt6thread11_State_implINS_8_InvokerISt5tupleIJZ4mainEUlvE_EEEEE6_M_runEv", kApp},
          {"_ZNSt6thread11_State_implINS_8_InvokerISt5tupleIJZN6morvik4host3kitEiEUlvE_EEEEE6_M_runEv", kKit},
          // the library of LLVM
          {"_ZNSt3__110__function6__funcIZ4mainE3$_0NS_9allocatorIS2_EEFvmEEclEOm", kApp},
          {"_ZNSt3__110__function6__funcIZN6morvik4host3kitEiE3$_0NS_9allocatorIS4_EEFvvEEclEv", kKit},
      })
    EXPECT_EQ(ownerByName(each.mangled), each.owner) << each.mangled;
}

TEST(FrameOwner, OfWhatTheLibraryMadeForNobodysTypesIsTheSystem) {
  for (const char* mangled :
       {"_ZNSt17_Function_handlerIFvvEPS0_E9_M_invokeERKSt9_Any_data",
        "_ZNSt17_Function_handlerIFvRKN6morvik15DeliveryFailureEEPS4_E9_M_invokeERKSt9_Any_dataS3_",
        "_ZNSt17_Function_handlerIFvvESt5_BindIFPS0_vEEE9_M_invokeERKSt9_Any_data",
        "_ZNSt17_Function_handlerIFvvESt8functionIS0_EE9_M_invokeERKSt9_Any_data",
        "_ZNSt16_Sp_counted_baseILN9__gnu_cxx12_Lock_policyE2EE10_M_releaseEv",
        "_ZNSt19_Sp_counted_deleterIP8_IO_FILEPFiS1_ESaIvELN9__gnu_cxx12_Lock_policyE2EE10_M_disposeEv",
        "_ZNSt23_Sp_counted_ptr_inplaceISt6vectorImSaImEESaIvELN9__gnu_cxx12_Lock_policyE2EE10_M_disposeEv"})
    EXPECT_EQ(ownerByName(mangled), kSystem) << mangled;
}

TEST(FrameOwner, OfOtherTemplatesOfTheLibraryIsTheSystemWhateverTheyHold) {
  EXPECT_EQ(ownerByName("_ZNSt3mapIiN4shop4CartESt4lessIiESaISt4pairIKiS1_EEEixERS5_"), kSystem);
  EXPECT_EQ(ownerByName("_ZNSt10unique_ptrI7sqlite3N6morvik4host6CloserEED2Ev"), kSystem);
}

TEST(FrameOwner, NamesThatEndInTheMiddleAreNobodysHarm) {
  for (const char* mangled : {"_Z", "_ZN", "_ZNSt", "_ZNSt99", "_ZNSt17_Function_handler", "_ZNSt17_Function_handlerI",
                              "_ZNSt99999999999999999999_Function_handler"})
    EXPECT_NE(ownerByName(mangled), kKit) << mangled;
}

TEST(CallOfTheApp, IsKnownByItsName) {
  EXPECT_TRUE(isCallOfTheApp("_ZN6morvik7runtime7callAppISt8functionIFvvEEJEEEDcRKT_DpOT0_"));
  EXPECT_TRUE(isCallOfTheApp("_ZN6morvik7runtime7callAppISt8functionIFvvEEJEEEDcRKT_DpOT0_.isra.0"));
  EXPECT_FALSE(isCallOfTheApp("_ZN6morvik7runtime10callAppendEv"));
  EXPECT_FALSE(isCallOfTheApp("_ZN6morvik7runtime4Host4stopEv"));
}

}  // namespace
}  // namespace morvik::host
