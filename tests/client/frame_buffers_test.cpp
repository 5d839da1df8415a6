// The store of picture buffers the live server passes from its render processes' readers to its
// encoders: a kept buffer comes back without a new allocation, whatever size is asked; the store
// stays bounded however many are given back at once (a burst of frames an interrupt drops), and
// buffers too small to matter are not kept. Threads giving and taking at once lose nothing.
#include "client/frame_buffers.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <thread>
#include <vector>

namespace lumora2::render {
namespace {

constexpr std::size_t kPicture = 416 * 720 * 3 / 2;

void drain() {
  while (keptFrameBuffers() > 0) (void)takeFrameBuffer(1);
}

class FrameBuffersTest : public ::testing::TestWithParam<std::size_t> {
 protected:
  void SetUp() override { drain(); }
  void TearDown() override { drain(); }
};

TEST_P(FrameBuffersTest, AKeptBufferIsHandedOutAgainAtTheSizeAsked) {
  const std::size_t size = GetParam();
  std::vector<std::uint8_t> buffer(kPicture, 7);
  const std::uint8_t* memory = buffer.data();
  keepFrameBuffer(std::move(buffer));
  ASSERT_EQ(keptFrameBuffers(), 1u);
  const std::vector<std::uint8_t> again = takeFrameBuffer(size);
  EXPECT_EQ(again.size(), size);
  if (size <= kPicture) {
    EXPECT_EQ(again.data(), memory) << "the kept memory, not a new block";
  }
  EXPECT_EQ(again[0], 7) << "nothing written on the way";
  if (size > kPicture) {
    EXPECT_EQ(again[size - 1], 0) << "what it grew by is zeroed";
  }
  EXPECT_EQ(keptFrameBuffers(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Sizes, FrameBuffersTest,
                         ::testing::Values(kPicture, kPicture - 4096, kPicture + 4096));

TEST(FrameBuffers, TheStoreStaysBoundedAndSkipsSmallBuffers) {
  drain();
  keepFrameBuffer(std::vector<std::uint8_t>(1024));
  EXPECT_EQ(keptFrameBuffers(), 0u) << "a small buffer is freed, not kept";
  for (int i = 0; i < 500; ++i) keepFrameBuffer(std::vector<std::uint8_t>(kPicture));
  EXPECT_GT(keptFrameBuffers(), 0u);
  EXPECT_LE(keptFrameBuffers(), 64u) << "500 pictures given back at once must not all be kept";
  // An empty store makes new, zeroed buffers.
  drain();
  const std::vector<std::uint8_t> fresh = takeFrameBuffer(kPicture);
  EXPECT_EQ(fresh.size(), kPicture);
  EXPECT_EQ(fresh[kPicture / 2], 0);
}

TEST(FrameBuffers, ThreadsTakingAndGivingLoseNoBuffer) {
  drain();
  // Four threads pass buffers through the store as readers and encoders do; every buffer taken
  // has a frame's size and no memory is handed to two takers at once.
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      std::vector<std::vector<std::uint8_t>> held;
      for (int i = 0; i < 200; ++i) {
        held.push_back(takeFrameBuffer(kPicture));
        ASSERT_EQ(held.back().size(), kPicture);
        held.back()[0] = std::uint8_t(i);
        if (held.size() > 3) {
          keepFrameBuffer(std::move(held.front()));
          held.erase(held.begin());
        }
      }
      for (auto& b : held) keepFrameBuffer(std::move(b));
    });
  }
  for (std::thread& t : threads) t.join();
  std::vector<std::vector<std::uint8_t>> all;
  std::set<const std::uint8_t*> distinct;
  while (keptFrameBuffers() > 0) {
    all.push_back(takeFrameBuffer(kPicture));
    distinct.insert(all.back().data());
  }
  EXPECT_EQ(distinct.size(), all.size()) << "a buffer kept twice";
  drain();
}

}  // namespace
}  // namespace lumora2::render
