#include "containers/var_context.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

// Each test leaves no context behind, so they also pass run in one process.
namespace {

std::string name_of(int number) {
  char buf[TASK_VAR_NAME_SIZE];
  return task_var_context_name(number, buf, sizeof buf);
}

TEST(VarContext, CreateNumberNameDelete) {
  EXPECT_EQ(task_var_get_context(), task_main_context);
  task_var_context *a, *b, *c;
  ASSERT_NE(task_var_context_create("alpha", &a, 0), nullptr);
  ASSERT_NE(task_var_context_create(nullptr, &b, 7), nullptr);
  ASSERT_NE(__task_var_get_context, nullptr);
  ASSERT_NE(task_var_context_block, nullptr);
  // Creating does not change the main thread's context.
  EXPECT_EQ(task_var_get_context(), task_main_context);
  EXPECT_NE(a, b);
  EXPECT_EQ(b->tvc_flags, 7u);
  int na = task_var_context_number(a), nb = task_var_context_number(b);
  EXPECT_GT(na, 0);
  EXPECT_GT(nb, 0);
  EXPECT_NE(na, nb);
  EXPECT_EQ(name_of(na), "alpha");
  EXPECT_EQ(name_of(nb), "noname");
  EXPECT_EQ(name_of(0), "main");
  EXPECT_EQ(name_of(300), "outofrange");
  EXPECT_EQ(name_of(-1), "outofrange");
  task_var_context_verify(a);
  task_var_context_verify(task_main_context);

  // A released number is the next one given out; the slot is poisoned.
  task_var_context *a_slot = a;
  task_var_context_delete(&a_slot);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(a_slot), 0xdeaddeadu);
  EXPECT_EQ(name_of(na), "noname");
  ASSERT_NE(task_var_context_create(std::string(40, 'x').c_str(), &c, 0), nullptr);
  EXPECT_EQ(task_var_context_number(c), na);
  EXPECT_EQ(name_of(na), std::string(TASK_VAR_NAME_SIZE - 1, 'x'));
  task_var_context_delete(&b);
  task_var_context_delete(&c);
}

std::vector<unsigned> grew;
void on_grow(unsigned slots, void *arg) {
  EXPECT_EQ(arg, &grew);
  grew.push_back(slots);
}

// Slots go to 16, then up by 16, as contexts outnumber them; released
// numbers come back, past the 16 the free stack starts with.
TEST(VarContext, ThreadSlotsGrowAndNumbersComeBack) {
  ASSERT_TRUE(task_var_thread_slots_register(on_grow, &grew));
  unsigned slots = task_var_thread_slots();
  std::vector<unsigned> expect;
  std::vector<task_var_context *> ctx(40);
  std::vector<int> first, second;
  for (size_t i = 0; i < ctx.size(); i++) {
    ASSERT_NE(task_var_context_create(nullptr, &ctx[i], 0), nullptr);
    unsigned live = 2 + static_cast<unsigned>(i);
    if (live > slots) expect.push_back(slots = live < 16 ? 16 : slots + 16);
    first.push_back(task_var_context_number(ctx[i]));
  }
  EXPECT_EQ(grew, expect);
  EXPECT_EQ(task_var_thread_slots(), slots);
  for (auto &c : ctx) task_var_context_delete(&c);
  for (auto &c : ctx) {
    ASSERT_NE(task_var_context_create(nullptr, &c, 0), nullptr);
    second.push_back(task_var_context_number(c));
  }
  std::reverse(second.begin(), second.end());
  EXPECT_EQ(first, second);  // last released, first reused
  for (auto &c : ctx) task_var_context_delete(&c);
}

TEST(VarContext, EachThreadHasItsOwn) {
  task_var_context *a, *b;
  ASSERT_NE(task_var_context_create("t1", &a, 0), nullptr);
  ASSERT_NE(task_var_context_create("t2", &b, 0), nullptr);
  task_var_context *seen_a = nullptr, *seen_b = nullptr;
  bool main_a = true;
  std::thread ta([&] {
    main_a = task_pthread_is_main();
    task_var_context_set_default(a);
    seen_a = task_var_get_context();
    task_var_context_clear_default(a);
  });
  std::thread tb([&] {
    task_var_context_set_default(b);
    seen_b = task_var_get_context();
    task_var_context_clear_default(b);
  });
  ta.join();
  tb.join();
  EXPECT_FALSE(main_a);
  EXPECT_TRUE(task_pthread_is_main());
  EXPECT_EQ(seen_a, a);
  EXPECT_EQ(seen_b, b);
  EXPECT_EQ(task_var_get_context(), task_main_context);
  task_var_context_delete(&a);
  task_var_context_delete(&b);
}

std::vector<std::string> released;
TEST(VarContext, ReleaseOrder) {
  task_var_context_release_hook_set(TASK_VAR_RELEASE_TIMERS, [](tvcfull *) { released.push_back("timers"); });
  task_var_context_release_hook_set(TASK_VAR_RELEASE_POOLS, [](tvcfull *) { released.push_back("pools"); });
  task_var_context_release_hook_set(TASK_VAR_RELEASE_POOL_JOB, [](tvcfull *) { released.push_back("pool job"); });
  task_var_context *c;
  ASSERT_NE(task_var_context_create("r", &c, 0), nullptr);
  task_var_context_delete(&c);
  EXPECT_EQ(released, (std::vector<std::string>{"pools", "pool job", "timers"}));
  for (int p = 0; p < TASK_VAR_RELEASE_PHASES; p++)
    task_var_context_release_hook_set(static_cast<task_var_release_phase>(p), nullptr);
}

class VarContextDeathTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(VarContextDeathTest, DeletingTheCurrentOrMainContext) {
  EXPECT_DEATH(
      {
        task_var_context *c;
        task_var_context_create("cur", &c, 0);
        task_var_context_set_default(c);
        task_var_context_delete(&c);
      },
      "Assertion failed: \\(current_context != context\\)");
  EXPECT_DEATH(
      {
        // From a thread state where main is not current, so this check is reached.
        task_var_context *c;
        task_var_context *m = task_main_context;
        task_var_context_create("other", &c, 0);
        task_var_context_set_default(c);
        task_var_context_delete(&m);
      },
      "Assertion failed: \\(context != &task_var_main_context.tvcfull_head\\)");
}

TEST_F(VarContextDeathTest, DeletingAThreadsDefault) {
  EXPECT_DEATH(
      {
        task_var_context *c;
        task_var_context_create("held", &c, 0);
        std::thread([c] { task_var_context_set_default(c); }).join();
        task_var_context_delete(&c);
      },
      "Assertion failed: \\(!full_context->tvcfull_default_context\\)");
}

TEST_F(VarContextDeathTest, SetDefaultMisuse) {
  EXPECT_DEATH(
      {
        task_var_context *c;
        task_var_context_create("twice", &c, 0);
        std::thread([c] { task_var_context_set_default(c); }).join();
        task_var_context_set_default(c);
      },
      "Assertion failed: \\(! whole->tvcfull_default_context\\)");
  EXPECT_DEATH(
      {
        task_var_context *c;
        task_var_context_create("ready", &c, 0);
        task_var_full(c)->tvcfull_initialized = true;
        task_var_context_set_default(c);
      },
      "Assertion failed: \\(! whole->tvcfull_initialized\\)");
}

TEST_F(VarContextDeathTest, SetupTwiceUnknownContextOtherThread) {
  EXPECT_DEATH(
      {
        task_var_context *c;
        task_var_context_create(nullptr, &c, 0);
        task_var_context_full();
      },
      "Assertion failed: \\(\\(\\(void \\*\\)0\\) == __task_var_get_context && \\(\\(void \\*\\)0\\) == "
      "task_var_context_block && \\(\\(void \\*\\)0\\) != task_default_context\\)");
  EXPECT_DEATH(
      {
        tvcfull fake{};
        task_var_context_verify(&fake.tvcfull_head);
      },
      "task_var_context_verify\\(context\\)");
  EXPECT_DEATH(
      {
        std::thread([] {
          task_var_context *c;
          task_var_context_create(nullptr, &c, 0);
        }).join();
      },
      "Assertion failed: \\(task_pthread_is_main\\(\\)\\)");
}

}  // namespace
