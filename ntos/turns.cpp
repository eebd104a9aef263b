// Several threads on one processor: contexts of their own in the program's thread, and who of them goes on.
#include "ntos/turns.h"

#include <sys/mman.h>

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

#ifndef __x86_64__
#error "the switch of stacks is written for x86-64"
#endif

// Leaves the registers that a call keeps on the stack, its top in *from, and goes on where the other stack was left.
// ucontext would do, but asks the host's kernel for the signal mask each time, and the sanitizers sweep the whole stack.
extern "C" void ntosSwitchStacks(void **from, void *to);
extern "C" void ntosFirstTurn();
asm(R"(
    .text
    .type ntosSwitchStacks, @function
ntosSwitchStacks:
    pushq %rbp
    pushq %rbx
    pushq %r12
    pushq %r13
    pushq %r14
    pushq %r15
    movq %rsp, (%rdi)
    movq %rsi, %rsp
    popq %r15
    popq %r14
    popq %r13
    popq %r12
    popq %rbx
    popq %rbp
    ret
    .size ntosSwitchStacks, . - ntosSwitchStacks
    .type ntosFirstTurn, @function
ntosFirstTurn:
    movq %r13, %rdi
    callq *%r12
    ud2
    .size ntosFirstTurn, . - ntosFirstTurn
)");

namespace ntos {

namespace {

constexpr std::size_t kStack = std::size_t{512} * 1024;
constexpr std::size_t kGuard = 4096;

// A place to go on from. The sanitizers follow: each has to be told of the other stack.
struct Context {
    void *top = nullptr;   // of the stack, while somebody else has the turn
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

void enterContext(Context &from, Context &to)
{
#ifdef NTOS_TSAN
    __tsan_switch_to_fiber(to.fiber, 0);
#endif
    ntosSwitchStacks(&from.top, to.top);
}

void toProgram(Player &player)
{
    detail::TurnsRecord &turns = *player.turns;
#ifdef NTOS_ASAN
    void *fake = nullptr;
    __sanitizer_start_switch_fiber(&fake, turns.programStack, turns.programStackSize);
#endif
    enterContext(player.context, turns.program);
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
    enterContext(turns.program, player.context);
#ifdef NTOS_ASAN
    __sanitizer_finish_switch_fiber(fake, nullptr, nullptr);
#endif
    switchThread(program);
}

// The contexts are kept from one run to the next.
void playerMain(void *argument)
{
    auto &player = *static_cast<Player *>(argument);
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
    // What ntosSwitchStacks takes off the stack: r15, r14, r13, r12, rbx, rbp, and where to go on. What is left then is
    // aligned as a call wants it.
    auto *top = reinterpret_cast<void **>(static_cast<char *>(context.stack) + kStack) - 9;
    top[2] = &player;
    top[3] = reinterpret_cast<void *>(playerMain);
    top[6] = reinterpret_cast<void *>(ntosFirstTurn);
    context.top = top;
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
