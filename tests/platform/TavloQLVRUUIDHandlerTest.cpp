#include <gtest/gtest.h>

#include "support/TavloTestPlatform.h"
#include "platform/TavloQLVRUUIDHandler.h"

namespace {

using Op = TavloMemorySecureStore::Operation;

class TavloQLVRUUIDHandlerTest : public ::testing::Test {
 protected:
  TavloTestPlatform test = TavloMakeTestPlatform();
  TavloQLVRUUIDHandler handler{test.secureStore, test.random, test.logSink};
  const TavloSecureItemQuery item{"qlvr_uuid_service", "qlvr_uuid_account", std::nullopt};
};

TEST_F(TavloQLVRUUIDHandlerTest, FirstCallStoresAUUIDThatLaterCallsReadBackThenCache) {
  const TavloString first = handler.UUID();
  ASSERT_TRUE(first);
  EXPECT_EQ(TavloSequenceRandom::countedUUID(1), *first);
  EXPECT_EQ(first, test.secureStore->item(item)) << "stored under the fixed service and account";
  EXPECT_EQ(1, test.secureStore->calls(Op::add));

  // The added UUID is not cached: the next call reads it from the store, then caches it.
  test.secureStore->resetCalls();
  EXPECT_EQ(first, handler.UUID());
  EXPECT_EQ(2, test.secureStore->calls(Op::copy));
  EXPECT_EQ(first, handler.UUID());
  EXPECT_EQ(2, test.secureStore->calls(Op::copy)) << "third call answers from the cache";
  EXPECT_TRUE(test.logSink->lines().empty());
}

TEST_F(TavloQLVRUUIDHandlerTest, StoreFailuresAreLoggedStraightToTheSinkAndAnswerNil) {
  struct Case {
    const char* name;
    Op failing;
    int32_t status;
    const char* line;
  };
  const Case cases[] = {
      {"add refused", Op::add, TavloSecureStoreIOError, "QLVRUUIDHandler Keychain Save Error: -36"},
      {"read broken", Op::copy, TavloSecureStoreDecodeError, "QLVRUUIDHandler Unhandled Keychain Error -26275"},
      {"read refused", Op::copy, -34018, "QLVRUUIDHandler Unhandled Keychain Error -34018"},
  };
  for (const Case& c : cases) {
    auto local = TavloMakeTestPlatform();
    TavloQLVRUUIDHandler fresh(local.secureStore, local.random, local.logSink);
    local.secureStore->setFailure(c.failing, c.status);
    EXPECT_FALSE(fresh.UUID()) << c.name;
    EXPECT_EQ(std::vector<std::string>{c.line}, local.logSink->lines()) << c.name;
    local.secureStore->clearFailures();
    EXPECT_TRUE(fresh.UUID()) << c.name << ": nothing is remembered, the next call tries again";
  }
}

TEST_F(TavloQLVRUUIDHandlerTest, UpdateWithoutAnItemFailsWithNotFound) {
  EXPECT_FALSE(handler.storeUUID(true));
  EXPECT_TRUE(test.logSink->contains("QLVRUUIDHandler Keychain Save Error: -25300"));
  EXPECT_EQ(0u, test.secureStore->itemCount());

  ASSERT_TRUE(handler.storeUUID(false));
  const TavloString updated = handler.storeUUID(true);
  ASSERT_TRUE(updated);
  EXPECT_EQ(updated, test.secureStore->item(item));
}

TEST_F(TavloQLVRUUIDHandlerTest, ResetForgetsAndDeletesSoTheNextCallMakesANewOne) {
  const TavloString first = handler.UUID();
  handler.reset();
  EXPECT_EQ(0u, test.secureStore->itemCount());
  const TavloString second = handler.UUID();
  ASSERT_TRUE(second);
  EXPECT_NE(first, second);

  handler.reset();
  test.secureStore->resetCalls();
  handler.reset();  // empty store: nothing to delete, nothing to say
  EXPECT_EQ(0, test.secureStore->calls(Op::remove));
  EXPECT_TRUE(test.logSink->lines().empty());

  handler.UUID();
  test.secureStore->setFailure(Op::remove, TavloSecureStoreIOError);
  handler.reset();
  EXPECT_TRUE(test.logSink->contains("QLVRUUIDHandler Keychain Delete Error: -36"));
}

TEST_F(TavloQLVRUUIDHandlerTest, AccessGroupJoinsEveryQuery) {
  handler.setAccessGroup("group.tv");
  const TavloString uuid = handler.UUID();
  EXPECT_EQ(uuid, test.secureStore->item({"qlvr_uuid_service", "qlvr_uuid_account", "group.tv"}));
  EXPECT_FALSE(test.secureStore->item(item));
}

TEST_F(TavloQLVRUUIDHandlerTest, StoredBytesThatAreNotTextAnswerNil) {
  for (const std::string& stored : {std::string(), std::string("\xFF\xFE", 2)}) {
    auto local = TavloMakeTestPlatform();
    TavloQLVRUUIDHandler fresh(local.secureStore, local.random, local.logSink);
    local.secureStore->setItem(item, stored);
    EXPECT_FALSE(fresh.UUID()) << "stored size " << stored.size();
    EXPECT_EQ(stored, local.secureStore->item(item)) << "what the store holds is left alone";
  }
}

}  // namespace
