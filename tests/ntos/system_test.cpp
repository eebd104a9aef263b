// Time, Plug and Play, power, processes, the trace.
#include "driver.h"

#include <set>

#include <excpt.h>

namespace nt_test {

using ntos::DeviceState;
using ntos::Ticks;

namespace {

constexpr Ticks seconds(std::int64_t n)
{
    return Ticks(n * 10'000'000);
}

// No interruptions, and the first who can goes on.
const ntos::Deal kFirst{[](std::size_t) { return 0u; }, {}};

} // namespace

// A five-second limit ends when the machine's clock says so, and not a tick before.
TEST_F(LayerTest, LimitsGoByTheClock)
{
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    struct Case {
        const char *name;
        LONGLONG limit;
        bool delay;
        NTSTATUS expected;
    };
    const LONGLONG until = machine.clock().now().count() + seconds(15).count();
    for (const Case &c : {Case{"relative", -seconds(5).count(), false, STATUS_TIMEOUT},
                          {"delay", -seconds(5).count(), true, STATUS_SUCCESS},
                          {"absolute", until, false, STATUS_TIMEOUT}}) {
        SCOPED_TRACE(c.name);
        bool done = false;
        const std::function<void()> players[] = {
            [&] {
                LARGE_INTEGER limit;
                limit.QuadPart = c.limit;
                EXPECT_EQ(c.expected, c.delay ? KeDelayExecutionThread(KernelMode, FALSE, &limit)
                                              : KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &limit));
                done = true;
            },
            [&] {
                for (const Ticks step : {seconds(5) - Ticks(1), Ticks(1)}) {
                    ntos::Turns::standBack(); // until the other one waits
                    EXPECT_FALSE(done);
                    EXPECT_EQ(step == Ticks(1) ? Ticks(1) : seconds(5), machine.clock().nextExpiry());
                    machine.clock().advance(step);
                }
            },
        };
        ntos::Turns turns;
        EXPECT_TRUE(turns.run(players, kFirst));
    }
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    EXPECT_EQ(until, now.QuadPart);
}

TEST_F(LayerTest, EventsAndSemaphoresCountTheirWaiters)
{
    KEVENT notification, synchronization;
    KSEMAPHORE semaphore;
    KeInitializeEvent(&notification, NotificationEvent, FALSE);
    KeInitializeEvent(&synchronization, SynchronizationEvent, FALSE);
    KeInitializeSemaphore(&semaphore, 0, 10);
    struct Case {
        PVOID object;
        std::function<void()> signal;
        int releases; // each time, of three waiters
    };
    const Case cases[] = {
        {&notification, [&] { KeSetEvent(&notification, 0, FALSE); }, 3},
        {&synchronization, [&] { KeSetEvent(&synchronization, 0, FALSE); }, 1},
        {&semaphore, [&] { KeReleaseSemaphore(&semaphore, 0, 2, FALSE); }, 2},
    };
    for (const Case &c : cases) {
        int released = 0;
        const auto wait = [&] {
            KeWaitForSingleObject(c.object, Executive, KernelMode, FALSE, nullptr);
            released++;
        };
        const std::function<void()> players[] = {wait, wait, wait, [&] {
                                                     for (int expected = 0; expected < 3; expected += c.releases) {
                                                         ntos::Turns::standBack(); // until all of them wait
                                                         EXPECT_EQ(expected, released);
                                                         c.signal();
                                                     }
                                                 }};
        ntos::Turns turns;
        EXPECT_TRUE(turns.run(players, kFirst));
        EXPECT_EQ(3, released);
    }
    EXPECT_EQ(1, KeReadStateSemaphore(&semaphore));
}

TEST_F(LayerTest, PlugAndPlaySequences)
{
    using Minors = std::vector<UCHAR>;
    auto seen = [&](auto &&act) {
        machine.settle();
        behaviour.pnpSeen.clear();
        act();
        machine.settle();
        return behaviour.pnpSeen;
    };
    behaviour.pnp = [&](PIO_STACK_LOCATION location) {
        return location->MinorFunction == IRP_MN_QUERY_REMOVE_DEVICE ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
    };
    EXPECT_EQ((Minors{IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_CANCEL_REMOVE_DEVICE}),
              seen([&] { EXPECT_EQ(STATUS_UNSUCCESSFUL, device.remove()); }));
    EXPECT_EQ(DeviceState::started, device.state());
    behaviour.pnp = nullptr;
    const Minors restart = seen([&] {
        EXPECT_EQ(STATUS_SUCCESS, device.queryStop());
        device.stop();
        EXPECT_EQ(DeviceState::stopped, device.state());
        EXPECT_EQ(STATUS_SUCCESS, device.start());
    });
    ASSERT_GE(restart.size(), 3u);
    EXPECT_EQ((Minors{IRP_MN_QUERY_STOP_DEVICE, IRP_MN_STOP_DEVICE, IRP_MN_START_DEVICE}),
              Minors(restart.begin(), restart.begin() + 3));
    // An orderly removal, too, waits for the last handle.
    auto first = machine.open(kName), second = machine.open("\\Device\\NtTest");
    EXPECT_EQ(Minors{IRP_MN_QUERY_REMOVE_DEVICE}, seen([&] { device.remove(); }));
    EXPECT_EQ(DeviceState::removePending, device.state());
    EXPECT_EQ(STATUS_NO_SUCH_DEVICE, machine.open(kName).status());
    EXPECT_EQ(Minors{}, seen([&] { first.close(); }));
    EXPECT_EQ(Minors{IRP_MN_REMOVE_DEVICE}, seen([&] { second.close(); }));
    EXPECT_EQ(DeviceState::removed, device.state());
    EXPECT_FALSE(machine.symbolicLink("NtTest"));
}

TEST_F(LayerTest, ARefusedSleepLeavesTheMachineAwake)
{
    std::vector<UCHAR> seen;
    behaviour.power = [&](PIO_STACK_LOCATION location) {
        seen.push_back(location->MinorFunction);
        return location->MinorFunction == IRP_MN_QUERY_POWER ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
    };
    EXPECT_EQ(STATUS_UNSUCCESSFUL, machine.sleep(ntos::SystemState::sleeping3));
    EXPECT_EQ(ntos::SystemState::working, machine.systemState());
    EXPECT_EQ((std::vector<UCHAR>{IRP_MN_QUERY_POWER, IRP_MN_SET_POWER}), seen); // back to where it was
}

// A user mapping belongs to its process: it is undone there, and before the process ends.
TEST_F(LayerTest, MappingsBelongToAProcess)
{
    using Found = std::vector<std::pair<unsigned, unsigned>>;
    constexpr std::size_t kSize = 3 * PAGE_SIZE + 100;
    PVOID memory = ExAllocatePoolWithTag(NonPagedPool, kSize, 'marF'), user = nullptr;
    PMDL mdl = nullptr;
    const auto map = [&]() -> NTSTATUS {
        mdl = IoAllocateMdl(memory, kSize, FALSE, FALSE, nullptr);
        MmBuildMdlForNonPagedPool(mdl);
        __try {
            user = MmMapLockedPagesSpecifyCache(mdl, UserMode, MmCached, nullptr, FALSE, NormalPagePriority);
        } __except (EXCEPTION_EXECUTE_HANDLER) {
            return GetExceptionCode();
        }
        return STATUS_SUCCESS;
    };
    const auto unmap = [&] {
        MmUnmapLockedPages(user, mdl);
        IoFreeMdl(mdl);
    };
    auto viewer = machine.createProcess("viewer"), other = machine.createProcess("other");
    PEPROCESS owner = nullptr;
    {
        auto inside = viewer.enter();
        owner = PsGetCurrentProcess();
        ObReferenceObject(owner);
        ASSERT_EQ(STATUS_SUCCESS, map());
        EXPECT_NE(memory, user);
        EXPECT_TRUE(viewer.mapped(user, kSize));
        EXPECT_FALSE(other.mapped(user));
    }
    {
        auto inside = other.enter();
        EXPECT_EQ((Found{{0xC4, 0x140}}), violationsOf(unmap));
        map();
    }
    EXPECT_EQ((Found{{0x76, 0}}), violationsOf([&] { other.end(); }));
    EXPECT_EQ(1u, machine.counters().mappings);
    EXPECT_EQ((Found{{0xC4, 0x140}}), violationsOf(unmap));
    // In another context, attached to the owner, is the way; it is closed when the owner has ended.
    const auto attached = [&](const std::function<void()> &act) {
        KAPC_STATE state;
        KeStackAttachProcess(owner, &state);
        act();
        KeUnstackDetachProcess(&state);
    };
    attached(map);
    EXPECT_EQ(1u, viewer.mappings());
    EXPECT_EQ(STATUS_PENDING, PsGetProcessExitStatus(owner));
    attached(unmap);
    EXPECT_FALSE(machine.userAddressMapped(user));
    viewer.end();
    EXPECT_EQ(STATUS_SUCCESS, PsGetProcessExitStatus(owner));
    attached([&] { EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, map()); });
    IoFreeMdl(mdl);
    ObDereferenceObject(owner);
    ExFreePool(memory);
}

TEST_F(LayerTest, PrintsAreFormattedAsTheKernelDoes)
{
    UNICODE_STRING counted{4, 6, const_cast<PWSTR>(L"abc")};
    machine.trace().enable(true);
    const auto mark = machine.trace().mark();
    DbgPrint("%ws|%S|%ls|%wZ|%wZ\n", L"wide \x00e9", L"S", L"ls", &counted, static_cast<PUNICODE_STRING>(nullptr));
    DbgPrint("%d %i %u %x %08X %Xh %5d|%-5d|%+d %%", -1, 7, 0xFFFFFFFFu, 0xabcu, 0xABCu, 0xC0000010u, 42, 42, 42);
    DbgPrint("%I64d %I64x %lld %lu %hu %c %s %.2s", -5000000000LL, 0x123456789ABCULL, 5000000000LL, 7u, 65537, 'c',
             "str", "cut");
    DbgPrint("%p", reinterpret_cast<void *>(0x1234ABCD));
    DbgPrint("%s(%d), %s() : ", "drv/usb/driver", 12, "Routine");
    DbgPrint("\n");
    DbgPrint("ERROR! %s(%d), %s() : ", "drv/usb/pnp", 7, "Other");
    DbgPrint("return %Xh \n", 0xC000000Eu);
    const auto lines = machine.trace().since(mark);
    ASSERT_EQ(6u, lines.size());
    const char *expected[] = {"wide \u00e9|S|ls|ab|(null)\n",
                              "-1 7 4294967295 abc 00000ABC C0000010h    42|42   |+42 %",
                              "-5000000000 123456789abc 5000000000 7 1 c str cu",
                              "000000001234ABCD",
                              "\n",
                              "return C000000Eh \n"};
    for (std::size_t i = 0; i < lines.size(); i++) {
        EXPECT_EQ(expected[i], lines[i].text);
        using Level = ntos::TraceLine::Level;
        EXPECT_EQ(i < 4 ? Level::plain : i == 4 ? Level::normal : Level::error, lines[i].level);
    }
    EXPECT_EQ("drv/usb/driver", lines[4].module);
    EXPECT_EQ(12, lines[4].line);
    EXPECT_EQ("Routine", lines[4].routine);
    machine.trace().enable(false);
    DbgPrint("%s", reinterpret_cast<const char *>(1)); // refused before anything is formatted
    EXPECT_EQ(6u, machine.trace().since(mark).size());
}

// Two players, with a lock that both want and an event that one of them waits for.
TEST_F(LayerTest, PlayersShareOneProcessor)
{
    const auto run = [&](std::uint64_t state) {
        KEVENT event;
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        KSPIN_LOCK lock;
        KeInitializeSpinLock(&lock);
        std::string order;
        const auto rounds = [&](char name) {
            for (int i = 0; i < 20; i++) {
                KIRQL old;
                KeAcquireSpinLock(&lock, &old);
                order += name;
                const std::size_t length = order.size();
                (void)KeReadStateEvent(&event); // a call at which a turn may end
                EXPECT_EQ(length, order.size());
                KeReleaseSpinLock(&lock, old);
            }
        };
        const std::function<void()> players[] = {
            [&] {
                rounds('a');
                KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
                order += 'A';
            },
            [&] {
                rounds('b');
                ntos::Turns::standBack();
                order += 'B';
                KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
            },
        };
        const auto draw = [&state] { return (state = state * 6364136223846793005u + 1442695040888963407u) >> 40; };
        ntos::Turns turns;
        EXPECT_TRUE(turns.run(players, {[&](std::size_t) { return draw(); }, [&] { return draw() % 3 == 0; }}));
        EXPECT_TRUE(order.ends_with("BA")) << order;
        return order;
    };
    std::set<std::string> orders;
    for (const std::uint64_t seed : {1u, 2u, 3u, 1u, 2u, 3u})
        orders.insert(run(seed));
    EXPECT_EQ(3u, orders.size());
}

TEST_F(LayerTest, PlayersThatWaitForEachOtherAreKnown)
{
    KEVENT events[2];
    for (KEVENT &event : events)
        KeInitializeEvent(&event, NotificationEvent, FALSE);
    std::vector<std::function<void()>> players;
    for (int i = 0; i < 2; i++)
        players.push_back([&events, i] {
            KeWaitForSingleObject(&events[i], Executive, KernelMode, FALSE, nullptr);
            KeSetEvent(&events[1 - i], IO_NO_INCREMENT, FALSE);
        });
    ntos::Turns turns;
    EXPECT_FALSE(turns.run(players, kFirst));
    KeSetEvent(&events[1], IO_NO_INCREMENT, FALSE);
    EXPECT_TRUE(turns.run({}, kFirst));
}

} // namespace nt_test
