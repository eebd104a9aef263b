// Several threads on one processor: contexts of their own in the program's thread, and who of them goes on.
#include "ntos/turns.h"

#include <sys/mman.h>
#include <ucontext.h>

#include <algorithm>
#include <cstdlib>

#ifndef __has_feature
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
#define NTOS_ASAN 1
#include <sanitizer/common_interface_defs.h>
#endif
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
#define NTOS_TSAN 1
#include <sanitizer/tsan_interface.h>
#endif

#include "ntos/thread.h"

namespace ntos {

namespace {

constexpr std::size_t kStack = std::size_t{512} * 1024;
constexpr std::size_t kGuard = 4096;

// A place to go on from. The sanitizers follow: each has to be told of the other stack.
struct Context {
    ucontext_t machine{};
    void *stack = nullptr; // lowest address; null: the program's own
    std::size_t size = 0;
#ifdef NTOS_TSAN
    void *fiber = nullptr;
#endif
};

} // namespace

struct Player {
    detail::TurnsRecord *turns = nullptr;
    ThreadObject *thread = nullptr;
    Context context;
    const std::function<void()> *routine = nullptr;
    const std::function<bool()> *ready = nullptr; // what it waits for, null: nothing
    bool standsBack = false;
    bool done = true;
};

struct detail::TurnsRecord {
    std::vector<std::unique_ptr<Player>> players;
    Context program;
    const void *programStack = nullptr;
    std::size_t programStackSize = 0;
    const Deal *deal = nullptr;
};

namespace {

void enterContext([[maybe_unused]] const Context &from, Context &to, ucontext_t &save)
{
#ifdef NTOS_TSAN
    __tsan_switch_to_fiber(to.fiber, 0);
#endif
    swapcontext(&save, &to.machine);
}

void toProgram(Player &player)
{
    detail::TurnsRecord &turns = *player.turns;
#ifdef NTOS_ASAN
    void *fake = nullptr;
    __sanitizer_start_switch_fiber(&fake, turns.programStack, turns.programStackSize);
#endif
    enterContext(player.context, turns.program, player.context.machine);
#ifdef NTOS_ASAN
    __sanitizer_finish_switch_fiber(fake, &turns.programStack, &turns.programStackSize);
#endif
}

void toPlayer(Player &player)
{
    detail::TurnsRecord &turns = *player.turns;
    _KTHREAD *const program = switchThread(&player.thread->thread);
#ifdef NTOS_ASAN
    void *fake = nullptr;
    __sanitizer_start_switch_fiber(&fake, player.context.stack, player.context.size);
#endif
    enterContext(turns.program, player.context, turns.program.machine);
#ifdef NTOS_ASAN
    __sanitizer_finish_switch_fiber(fake, nullptr, nullptr);
#endif
    switchThread(program);
}

// The contexts are kept from one run to the next.
void playerMain(unsigned high, unsigned low)
{
    auto &player = *reinterpret_cast<Player *>(std::uintptr_t{high} << 32 | low);
#ifdef NTOS_ASAN
    __sanitizer_finish_switch_fiber(nullptr, &player.turns->programStack, &player.turns->programStackSize);
#endif
    for (;;) {
        (*player.routine)();
        player.done = true;
        toProgram(player);
    }
}

void makeContext(Player &player)
{
    void *memory = mmap(nullptr, kGuard + kStack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || mprotect(memory, kGuard, PROT_NONE) != 0)
        std::abort();
    Context &context = player.context;
    context.stack = static_cast<char *>(memory) + kGuard;
    context.size = kStack;
    getcontext(&context.machine);
    context.machine.uc_stack.ss_sp = context.stack;
    context.machine.uc_stack.ss_size = context.size;
    context.machine.uc_link = nullptr;
    const auto address = reinterpret_cast<std::uintptr_t>(&player);
    makecontext(&context.machine, reinterpret_cast<void (*)()>(playerMain), 2, static_cast<unsigned>(address >> 32),
                static_cast<unsigned>(address));
#ifdef NTOS_TSAN
    context.fiber = __tsan_create_fiber(0);
#endif
}

} // namespace

void waitForTurn(_KTHREAD *thread, const std::function<bool()> &ready)
{
    Player &player = *thread->player;
    while (!ready()) {
        player.ready = &ready;
        toProgram(player);
        player.ready = nullptr;
    }
}

void offerTurn(_KTHREAD *thread)
{
    Player &player = *thread->player;
    if (player.turns->deal->interrupt && player.turns->deal->interrupt())
        toProgram(player);
}

// ------------------------------------------------------------------------------------------------------- machine.h: Turns

Turns::Turns() : turns_(std::make_unique<detail::TurnsRecord>()) {}

Turns::~Turns()
{
    for (const std::unique_ptr<Player> &player : turns_->players) {
#ifdef NTOS_TSAN
        __tsan_destroy_fiber(player->context.fiber);
#endif
        munmap(static_cast<char *>(player->context.stack) - kGuard, kGuard + kStack);
        releaseThread(player->thread);
    }
}

bool Turns::run(std::span<const std::function<void()>> routines, const Deal &deal)
{
    detail::TurnsRecord &turns = *turns_;
    if (!routines.empty() && std::any_of(turns.players.begin(), turns.players.end(), [](auto &player) { return !player->done; }))
        std::abort();
    turns.deal = &deal;
#ifdef NTOS_TSAN
    turns.program.fiber = __tsan_get_current_fiber();
#endif
    while (turns.players.size() < routines.size()) {
        auto player = std::make_unique<Player>();
        player->turns = &turns;
        player->thread = newThread();
        player->thread->thread.player = player.get();
        makeContext(*player);
        turns.players.push_back(std::move(player));
    }
    std::vector<Player *> playing, able;
    for (std::size_t i = 0; i < routines.size(); i++) {
        turns.players[i]->routine = &routines[i];
        turns.players[i]->done = false;
    }
    for (const std::unique_ptr<Player> &player : turns.players)
        if (!player->done)
            playing.push_back(player.get());
    while (!playing.empty()) {
        // Those who stand back have their turn when nobody else can.
        for (const bool back : {false, true}) {
            able.clear();
            for (Player *player : playing)
                if (player->standsBack == back && (player->ready == nullptr || (*player->ready)()))
                    able.push_back(player);
            if (!able.empty())
                break;
        }
        if (able.empty())
            return false;
        Player &next = *able[able.size() == 1 ? 0 : deal.next(able.size()) % able.size()];
        next.standsBack = false;
        toPlayer(next);
        if (next.done)
            std::erase(playing, &next);
    }
    return true;
}

void Turns::standBack()
{
    _KTHREAD *thread = currentThread();
    if (thread->player == nullptr)
        return;
    thread->player->standsBack = true;
    toProgram(*thread->player);
}

} // namespace ntos
