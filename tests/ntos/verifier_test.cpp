// The verifier notices what breaks a rule, and the faults come where they are ordered.
#include "driver.h"

namespace nt_test {

namespace {

using Found = std::vector<std::pair<unsigned, unsigned>>;

PVOID block()
{
    return ExAllocatePoolWithTag(NonPagedPool, 32, 'tseT');
}

NTSTATUS letItGoOn(PDEVICE_OBJECT, PIRP, PVOID)
{
    return STATUS_SUCCESS;
}

} // namespace

// What a driver does wrong in a dispatch routine, and the rule that answers.
TEST_F(LayerTest, BrokenRulesInDispatch)
{
    struct Case {
        const char *name;
        std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)> upper;
        Found expected;
        std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)> lower = {};
    };
    const Case cases[] = {
        {"well behaved", [](PDEVICE_OBJECT, PIRP irp) { return complete(irp, STATUS_SUCCESS); }, {}},
        {"answers another status", [](PDEVICE_OBJECT, PIRP irp) { complete(irp, STATUS_SUCCESS); return STATUS_UNSUCCESSFUL; }, {{0xC4, 0x23E}}},
        {"completed twice", [](PDEVICE_OBJECT, PIRP irp) { complete(irp, STATUS_SUCCESS); return complete(irp, STATUS_SUCCESS); }, {{0x44, 0}}},
        {"more information than output", [](PDEVICE_OBJECT, PIRP irp) { return complete(irp, STATUS_SUCCESS, 5); }, {{0xC4, 0x312}}},
        {"pending without mark", [](PDEVICE_OBJECT, PIRP irp) { complete(irp, STATUS_SUCCESS); return STATUS_PENDING; }, {{0xC4, 0x223}}},
        {"mark without pending", [](PDEVICE_OBJECT, PIRP irp) { IoMarkIrpPending(irp); return complete(irp, STATUS_SUCCESS); }, {{0xC4, 0x224}}},
        {"completed with pending",
         [](PDEVICE_OBJECT, PIRP irp) { IoMarkIrpPending(irp); return complete(irp, STATUS_PENDING); }, {{0xC9, 0x06}}},
        {"leaves a cancel routine",
         [](PDEVICE_OBJECT, PIRP irp) { IoSetCancelRoutine(irp, [](PDEVICE_OBJECT, PIRP) {}); return complete(irp, STATUS_SUCCESS); }, {{0xC9, 0x07}}},
        {"returns at another level",
         [](PDEVICE_OBJECT, PIRP irp) { const NTSTATUS s = complete(irp, STATUS_SUCCESS); KeRaiseIrqlToDpcLevel(); return s; }, {{0xC9, 0x05}}},
        {"completes under a spin lock",
         [](PDEVICE_OBJECT, PIRP irp) {
             KSPIN_LOCK lock = 0;
             KIRQL old;
             KeAcquireSpinLock(&lock, &old);
             const NTSTATUS s = complete(irp, STATUS_SUCCESS);
             KeReleaseSpinLock(&lock, old);
             return s;
         },
         {{0xC9, 0x10}}},
        {"copies the location with its completion routine",
         [](PDEVICE_OBJECT device, PIRP irp) -> NTSTATUS {
             // As a filter below another one would see it: the routine above is its caller's.
             IoGetCurrentIrpStackLocation(irp)->CompletionRoutine = letItGoOn;
             IoGetCurrentIrpStackLocation(irp)->Control = SL_INVOKE_ON_SUCCESS;
             *IoGetNextIrpStackLocation(irp) = *IoGetCurrentIrpStackLocation(irp);
             return IoCallDriver(below(device), irp);
         },
         {{0xC4, 0x206}}},
        {"passes an empty location down", [](PDEVICE_OBJECT device, PIRP irp) -> NTSTATUS { return IoCallDriver(below(device), irp); }, {{0xC4, 0x211}}},
        {"completion routine keeps the pending mark",
         [](PDEVICE_OBJECT device, PIRP irp) -> NTSTATUS {
             IoCopyCurrentIrpStackLocationToNext(irp);
             IoSetCompletionRoutine(irp, letItGoOn, nullptr, TRUE, TRUE, TRUE);
             return IoCallDriver(below(device), irp);
         },
         {{0xC4, 0x228}},
         [](PDEVICE_OBJECT, PIRP irp) -> NTSTATUS { IoMarkIrpPending(irp); complete(irp, STATUS_SUCCESS); return STATUS_PENDING; }},
    };
    auto file = machine.open(kName);
    for (const Case &c : cases) {
        behaviour.upper = c.upper;
        behaviour.lower = c.lower;
        EXPECT_EQ(c.expected, violationsOf([&] { file.deviceControl(code(1, METHOD_BUFFERED)); })) << c.name;
    }
}

TEST_F(LayerTest, BrokenRulesElsewhere)
{
    struct Case {
        const char *name;
        std::function<void()> act;
        Found expected;
    };
    KSPIN_LOCK a = 0, b = 0;
    ERESOURCE resource;
    KEVENT event;
    const auto both = [](PKSPIN_LOCK first, PKSPIN_LOCK second) {
        KIRQL old;
        KeAcquireSpinLock(first, &old);
        KeAcquireSpinLockAtDpcLevel(second);
        KeReleaseSpinLockFromDpcLevel(second);
        KeReleaseSpinLock(first, old);
    };
    const Case cases[] = {
        {"freed twice", [] { PVOID p = block(); ExFreePool(p); ExFreePool(p); }, {{0xC2, 0x07}}},
        {"freed with another tag", [] { PVOID p = block(); ExFreePoolWithTag(p, 'rehO'); ExFreePoolWithTag(p, 'tseT'); }, {{0xC2, 0x0A}}},
        {"freed what is none", [] { int i; ExFreePool(&i); }, {{0xC2, 0x46}}},
        {"no tag", [] { ExFreePool(ExAllocatePoolWithTag(NonPagedPool, 8, 0)); }, {{0xC4, 0x01}}},
        {"MDL freed twice", [] { PVOID p = block(); PMDL m = IoAllocateMdl(p, 32, FALSE, FALSE, nullptr); IoFreeMdl(m); IoFreeMdl(m); ExFreePool(p); }, {{0xC4, 0xB8}}},
        {"MDL beyond its block", [] { PVOID p = block(); PMDL m = IoAllocateMdl(p, 33, FALSE, FALSE, nullptr); MmBuildMdlForNonPagedPool(m); IoFreeMdl(m); ExFreePool(p); }, {{0xC4, 0xB6}}},
        {"request freed twice", [] { PIRP i = IoAllocateIrp(1, FALSE); IoFreeIrp(i); IoFreeIrp(i); }, {{0x44, 0}}},
        {"no room in the request", [&] { PIRP i = IoAllocateIrp(1, FALSE); IoSetNextIrpStackLocation(i); IoCallDriver(behaviour.lowerDevice, i); IoFreeIrp(i); }, {{0x35, 0}}},
        {"waits at DISPATCH_LEVEL", [&] {
             KeInitializeEvent(&event, NotificationEvent, TRUE);
             const KIRQL old = KeRaiseIrqlToDpcLevel();
             KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
             KeLowerIrql(old); }, {{0x0A, 2}}},
        {"looks at DISPATCH_LEVEL", [&] {
             KeInitializeEvent(&event, NotificationEvent, FALSE);
             LARGE_INTEGER zero{};
             const KIRQL old = KeRaiseIrqlToDpcLevel();
             EXPECT_EQ(STATUS_TIMEOUT, KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero));
             KeLowerIrql(old); }, {}},
        {"event not initialised", [&] { memset(&event, 0xCD, sizeof event); event.Header.WaitListHead.Flink = event.Header.WaitListHead.Blink = &event.Header.WaitListHead; KeReadStateEvent(&event); }, {{0xC4, 0x0A}}},
        {"raises downwards", [] { KIRQL old = KeRaiseIrqlToDpcLevel(), same; KeRaiseIrql(PASSIVE_LEVEL, &same); KeRaiseIrql(DISPATCH_LEVEL, &same); KeLowerIrql(old); }, {{0xC4, 0x30}}},
        {"pageable call at DISPATCH_LEVEL", [] { UNICODE_STRING s{}; const KIRQL old = KeRaiseIrqlToDpcLevel(); IoDeleteSymbolicLink(&s); KeLowerIrql(old); }, {{0xC4, 0x30}}},
        {"locks in both orders", [&] { both(&a, &b); both(&b, &a); }, {{0xC4, 0x1001}}},
        {"resource deleted twice", [&] { ExInitializeResourceLite(&resource); ExDeleteResourceLite(&resource); ExDeleteResourceLite(&resource); }, {{0xC4, 0x1007}}},
        {"handle closed twice", [] {
             HANDLE handle;
             PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, [](PVOID) { PsTerminateSystemThread(STATUS_SUCCESS); }, nullptr);
             PVOID thread;
             ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, *PsThreadType, KernelMode, &thread, nullptr);
             ZwClose(handle);
             KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
             ObDereferenceObject(thread);
             ZwClose(handle); }, {{0x93, 0}}},
    };
    for (const Case &c : cases)
        EXPECT_EQ(c.expected, violationsOf(c.act)) << c.name;
}

TEST_F(LayerTest, LinkLeftBehindAtRemoval)
{
    behaviour.namedLinkLeft = true;
    EXPECT_EQ((Found{{0xC4, 0x62}}), violationsOf([&] { device.remove(); }));
    UNICODE_STRING link;
    RtlInitUnicodeString(&link, L"\\DosDevices\\NtTest");
    EXPECT_EQ(STATUS_SUCCESS, IoDeleteSymbolicLink(&link));
}

TEST_F(LayerTest, BlockLeftBehindAtUnload)
{
    device.remove();
    behaviour.leakPool = true;
    device = machine.addRootDevice(kHardwareId);
    EXPECT_EQ(1u, machine.pool("kael").blocks);
    machine.verifier().record();
    const auto report = machine.shutdown();
    ASSERT_FALSE(report.clean());
    EXPECT_NE(std::string::npos, report.leaks[0].find("'kael'")) << report.leaks[0];
    expectClean = false;
}

TEST(Machine, StopsWithOneLineByDefault)
{
    EXPECT_DEATH(
        {
            ntos::Machine machine;
            ExFreePool(&machine);
        },
        "machine stopped: freed what is no block, in ExFreePool: address .*\\(C2, 46\\)");
}

// The callback comes at exactly the call ordered, for every index of a scenario; a systematic run fails each call site
// once, and tells the callers of a common helper apart.
TEST_F(LayerTest, FaultsComeWhereTheyAreOrdered)
{
    behaviour.upper = [](PDEVICE_OBJECT, PIRP irp) {
        PVOID first = block();
        PVOID second = block();
        for (PVOID p : {first, second})
            if (p != nullptr)
                ExFreePool(p);
        return complete(irp, first == nullptr || second == nullptr ? STATUS_NO_MEMORY : STATUS_SUCCESS);
    };
    auto file = machine.open(kName);
    ntos::Faults &faults = machine.faults();
    faults.only({"nttest"});
    const char *expected[] = {"ExAllocatePoolWithTag", "ExAllocatePoolWithTag", "ExFreePool", "ExFreePool", "IoCompleteRequest"};
    for (std::uint64_t index = 1; index <= 5; index++) {
        faults.resetCalls();
        std::string seen;
        faults.atCall(index, [&](const ntos::KernelCall &call) { seen = call.routine; });
        EXPECT_TRUE(file.deviceControl(code(1, METHOD_BUFFERED)).ok());
        EXPECT_EQ(expected[index - 1], seen);
        EXPECT_EQ(5u, faults.calls());
    }
    ntos::Faults::forgetSites();
    for (const NTSTATUS status : {STATUS_NO_MEMORY, STATUS_NO_MEMORY, STATUS_SUCCESS}) {
        faults.limit(faults.injectedCalls().size() + 1);
        faults.systematic();
        EXPECT_EQ(status, file.deviceControl(code(1, METHOD_BUFFERED)).status);
    }
    EXPECT_EQ(2u, ntos::Faults::sitesFailed());
    // Random ones repeat with their seed.
    auto pattern = [&](std::uint64_t seed, double percent) {
        faults.off();
        faults.random(seed, percent);
        std::uint64_t failed = 0;
        for (int i = 0; i < 64; i++)
            failed = failed << 1 | !file.deviceControl(code(1, METHOD_BUFFERED)).ok();
        return failed;
    };
    EXPECT_EQ(pattern(7, 25), pattern(7, 25));
    EXPECT_NE(pattern(7, 25), pattern(8, 25));
    EXPECT_EQ(0u, pattern(1, 0));
    EXPECT_EQ(~std::uint64_t{0}, pattern(1, 100));
}

} // namespace nt_test
