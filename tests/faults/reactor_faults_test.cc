// What a process can do to the reactor: floods of work, forged wake-ups, signals, descriptors that run out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iostream>
#include <random>
#include <thread>
#include <vector>

#include "reactor/reactor.h"
#include "support/descriptor_limit.h"
#include "support/echo_client.h"
#include "support/far_side.h"
#include "support/forwarding.h"
#include "support/scale.h"
#include "support/swarm.h"

namespace {

using namespace std::chrono_literals;
using gxtest::DescriptorLimit;
using gxtest::EchoClient;
using gxtest::Eventually;
using gxtest::FarSide;
using gxtest::Scale;
using gxtest::TakenDescriptors;
using Clock = std::chrono::steady_clock;

// How late things were, and how many.
class Lateness {
 public:
  void Note(Clock::time_point due) {
    const std::int64_t late = (Clock::now() - due) / 1us;
    std::int64_t worst = worst_us_;
    while (late > worst && !worst_us_.compare_exchange_weak(worst, late)) {
    }
    ++count_;
  }
  double WorstMs() const { return static_cast<double>(worst_us_) / 1000; }
  int Count() const { return count_; }

 private:
  std::atomic<std::int64_t> worst_us_{0};
  std::atomic<int> count_{0};
};

// Tells how late a thread is that only sleeps: nobody can be more punctual than the machine.
class Witness {
 public:
  ~Witness() { Stop(); }
  double Stop() {
    done_ = true;
    if (thread_.joinable()) thread_.join();
    return lateness_.WorstMs();
  }

 private:
  Lateness lateness_;
  std::atomic<bool> done_{false};
  std::thread thread_{[this] {
    while (!done_) {
      const auto due = Clock::now() + 1ms;
      std::this_thread::sleep_until(due);
      lateness_.Note(due);
    }
  }};
};

// The three kinds of work, each done once: when a descriptor is ready, when a task is out of time, when a timer
// fires.
class DueTask final : public ITCPTask {
 public:
  // Ready at once.
  DueTask(int writable, Lateness& lateness) : ITCPTask(writable, kSelectWritable), lateness_(lateness) {}
  // Out of time later.
  DueTask(int quiet, std::chrono::milliseconds limit, Lateness& lateness)
      : ITCPTask(quiet, kSelectReadable), due_(Clock::now() + limit), limited_(true), lateness_(lateness) {}

  bool Done() override {
    lateness_.Note(due_);
    return true;
  }
  bool timeout() override { return timeleft() == 0; }
  unsigned long timeleft() override {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due_ - Clock::now());
    return limited_ ? static_cast<unsigned long>(std::max(left, 0ms).count()) : ~0UL;
  }

 private:
  ~DueTask() override = default;
  const Clock::time_point due_ = Clock::now();
  const bool limited_ = false;
  Lateness& lateness_;
};

class DueTimer final : public ITask, private CReference {
 public:
  DueTimer(std::chrono::milliseconds interval, Lateness& lateness)
      : due_(Clock::now() + interval), lateness_(lateness) {}
  GX_FORWARD_REFERENCE();
  void MarkedForDeletion() override {}
  void Done() override { lateness_.Note(due_); }

 private:
  ~DueTimer() override = default;
  const Clock::time_point due_;
  Lateness& lateness_;
};

class ReactorFaults : public gxtest::ForwardingTest {};

// From four threads, in bursts and lulls, so that the reactor keeps turning from idle to busy: nothing is
// missed, and nothing is late by more than 50 ms.
TEST_F(ReactorFaults, AFloodOfTasksAndTimersIsPunctual) {
  constexpr int kThreads = 4;
  const int each = Scale(5'000, 50'000);
  CReactor_T<tcp_select_tracker> reactor;
  ASSERT_TRUE(reactor.Run(1));
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  Lateness lateness;
  Witness witness;
  std::vector<std::thread> threads;
  for (unsigned seed = 1; seed <= kThreads; ++seed) {
    threads.emplace_back([&, seed] {
      std::minstd_rand random(seed);
      for (int left = each; left > 0;) {
        for (int burst = std::min<int>(left, 1 << random() % 11); burst > 0; --burst, --left) {
          const std::chrono::milliseconds later(random() % 20);
          const auto kind = random() % 4;
          if (kind == 0) {
            reactor.AddTask(CTCPTask(new DueTask(ends[0], later, lateness)));
          } else if (kind == 1) {
            reactor.AddTask(CTCPTask(new DueTask(ends[0], lateness)));
          } else {
            const auto interval_ms = static_cast<unsigned long long>(later.count());
            reactor.SetTimer(CRefObj<ITask>(new DueTimer(later, lateness)).get(), interval_ms, true);
          }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 40'000));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(Eventually([&] { return lateness.Count() == kThreads * each; })) << lateness.Count();
  reactor.Stop();
  close(ends[0]);
  close(ends[1]);
  const double machine_ms = witness.Stop();
  std::cout << lateness.Count() << " completions, the latest by " << lateness.WorstMs() << " ms; the machine "
            << machine_ms << " ms\n";
  EXPECT_LE(lateness.WorstMs(), gxtest::IsLong() ? 50 + machine_ms : 5'000);
}

// The address of the wake-up socket, which is the only datagram socket around.
sockaddr_in FindWakeUpSocket() {
  sockaddr_in address{};
  for (int descriptor = 0; descriptor < FD_SETSIZE; ++descriptor) {
    int type = 0;
    socklen_t length = sizeof type;
    if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_DGRAM) continue;
    length = sizeof address;
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
    if (address.sin_family == AF_INET) return address;
  }
  ADD_FAILURE() << "no wake-up socket";
  return address;
}

TEST_F(ReactorFaults, ForgedWakeUpsStopNothing) {
  const FarSide far(stream_);
  EchoClient client(address_);
  ASSERT_TRUE(client.Echoes());
  const sockaddr_in target = FindWakeUpSocket();
  const int stranger = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::minstd_rand random(1);
  for (int i = Scale(1'000, 10'000); i > 0; --i) {
    const std::int32_t event = i % 4;  // a stop among them
    const std::size_t length = i % 3 == 0 ? random() % 4 : sizeof event;
    sendto(stranger, &event, length, 0, reinterpret_cast<const sockaddr*>(&target), sizeof target);
    EXPECT_TRUE(i % 100 != 0 || client.Echoes());
  }
  close(stranger);
  EXPECT_TRUE(client.Echoes());
  EchoClient next(address_);
  EXPECT_TRUE(next.Echoes());
}

// 1,000 signals a second, with a handler of the host's, while 20 clients carry data.
TEST_F(ReactorFaults, SignalsDisturbNoTransfer) {
  static std::atomic<int> handled{0};
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) { ++handled; };
  sigaction(SIGALRM, &action, &before);
  const itimerval every_ms{{0, 1000}, {0, 1000}};
  const itimerval never{};
  const FarSide far(stream_);
  int transfers = 0;
  const auto until = Clock::now() + Scale(500ms, 5000ms);
  setitimer(ITIMER_REAL, &every_ms, nullptr);
  do {
    gxtest::Swarm swarm(address_, 20, 200'000);
    EXPECT_TRUE(swarm.Succeeds(gxtest::kPatience));
    transfers += 20;
  } while (Clock::now() < until && !HasFailure());
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(far.Total().fault, "");
  EXPECT_GT(handled, 50);
  std::cout << handled << " signals, " << transfers << " transfers\n";
}

// 64 descriptors in all: whoever is connected stays so and is served, and accepting goes on once there are some
// again.
TEST_F(ReactorFaults, OutOfDescriptorsTheOthersAreServed) {
  constexpr int kDescriptors = 64;
  const FarSide far(stream_);
  std::vector<EchoClient> clients;
  // The first answer may come while the reactor still looks for a further client, which takes a descriptor for
  // a moment; the second one goes through the reactor.
  const auto one_more_echoes = [&] {
    clients.emplace_back(address_);
    return clients.back().Echoes() && clients.back().Echoes();
  };
  ASSERT_TRUE(one_more_echoes());
  {
    const DescriptorLimit few(kDescriptors);
    // A connection takes two. Of the last one the client finds a descriptor, and the module finds none.
    std::size_t left = TakenDescriptors(kDescriptors).Count();
    const TakenDescriptors odd(left % 2 == 0 ? gxtest::LowestFreeDescriptor() + 1 : 0);
    for (; left > 2; left -= 2) ASSERT_TRUE(one_more_echoes());
    EchoClient waiting(address_);
    ASSERT_TRUE(waiting.IsConnected());
    ASSERT_EQ(gxtest::LowestFreeDescriptor(), -1);
    const auto start = Clock::now();
    for (EchoClient& client : clients) EXPECT_TRUE(client.Echoes());
    EXPECT_LT(Clock::now() - start, 4s) << "the pause is for those who wait for a descriptor";
    for (int i = 0; i < 3; ++i) clients.pop_back();
    const auto freed = Clock::now();
    EXPECT_TRUE(waiting.Echoes());
    const auto waited_ms = (Clock::now() - freed) / 1ms;
    EXPECT_LE(waited_ms, 6000);
    for (EchoClient& client : clients) EXPECT_TRUE(client.Echoes());
    std::cout << clients.size() << " stayed, accepting went on after " << waited_ms << " ms\n";
  }
  EXPECT_EQ(far.Total().fault, "");
}

// A host with 1,100 open files: what select cannot watch is refused with a line, what it can is served.
TEST_F(ReactorFaults, AHostOfManyFilesIsRefusedWithALine) {
  const DescriptorLimit plenty(1'300);
  const FarSide far(stream_);
  EchoClient before(address_);
  ASSERT_TRUE(before.Echoes());
  {
    const TakenDescriptors files(1'100);
    for (int i = 0; i < 20; ++i) {
      EchoClient refused(address_);
      EXPECT_TRUE(refused.WaitForEnd());
    }
    EXPECT_TRUE(before.Echoes());
    const auto lines = log_.Lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const auto& line) {
                              return line.first == kGXModLogError &&
                                     line.second.find("connection refused") != std::string::npos;
                            }),
              20);
    IChannelRaw* deaf = client_->NewChannel("late", "", "10.0.0.1:22");
    ASSERT_NE(deaf, nullptr);
    EXPECT_STREQ(deaf->get_LocalAddress(), "") << "no port that nobody answers on";
    EXPECT_THAT(log_.Lines(),
                testing::Contains(testing::Pair(kGXModLogError, testing::HasSubstr("listening"))));
  }
  EXPECT_TRUE(before.Echoes());
  EchoClient after(address_);
  EXPECT_TRUE(after.Echoes());
}

}  // namespace
