// Strings, raising, stopping.
#include <algorithm>
#include <cstring>

#include "ntos/memory.h"

#include <excpt.h>

using namespace ntos;

extern "C" {

void NtosPushGuard(struct _NTOS_GUARD_FRAME *Frame)
{
    _KTHREAD *thread = currentThread();
    Frame->Code = 0;
    Frame->Outer = thread->guards;
    thread->guards = Frame;
}

void NtosPopGuard(struct _NTOS_GUARD_FRAME *Frame)
{
    _KTHREAD *thread = currentThread();
    if (thread->guards == Frame)
        thread->guards = Frame->Outer;
}

void NtosRaise(int Code)
{
    ExRaiseStatus(Code);
}

void ExRaiseStatus(NTSTATUS Status)
{
    _KTHREAD *thread = currentThread();
    _NTOS_GUARD_FRAME *frame = thread->guards;
    if (frame == nullptr)
        KeBugCheckEx(0x1E, static_cast<ULONG_PTR>(static_cast<ULONG>(Status)), 0, 0, 0);
    thread->guards = frame->Outer;
    frame->Code = Status;
    longjmp(frame->Buffer, 1);
}

void KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR P1, ULONG_PTR, ULONG_PTR, ULONG_PTR)
{
    violate(BugCheckCode == 0x1E ? "status raised that nobody handles" : "bug check", "KeBugCheckEx",
            text("%08X of %s", static_cast<unsigned>(P1), "the calling driver"), BugCheckCode, static_cast<std::uint32_t>(P1));
    std::abort(); // there is nothing to go back to
}

void RtlInitUnicodeString(PUNICODE_STRING Destination, PCWSTR Source)
{
    std::size_t length = 0;
    while (Source != nullptr && Source[length] != 0)
        length++;
    Destination->Buffer = const_cast<PWSTR>(Source);
    Destination->Length = static_cast<USHORT>(length * sizeof(WCHAR));
    Destination->MaximumLength = static_cast<USHORT>(Source == nullptr ? 0 : (length + 1) * sizeof(WCHAR));
}

void RtlFreeUnicodeString(PUNICODE_STRING UnicodeString)
{
    NTOS_DOOR(RtlFreeUnicodeString, PASSIVE_LEVEL, false);
    enter(kDoor);
    if (UnicodeString->Buffer != nullptr)
        poolFree(UnicodeString->Buffer, kDoor.routine);
    *UnicodeString = {};
}

void RtlCopyUnicodeString(PUNICODE_STRING Destination, PCUNICODE_STRING Source)
{
    if (Source == nullptr) {
        Destination->Length = 0;
        return;
    }
    Destination->Length = std::min(Source->Length, Destination->MaximumLength);
    memcpy(Destination->Buffer, Source->Buffer, Destination->Length);
    if (Destination->Length + sizeof(WCHAR) <= Destination->MaximumLength)
        Destination->Buffer[Destination->Length / sizeof(WCHAR)] = 0;
}

NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source)
{
    if (static_cast<unsigned>(Destination->Length) + Source->Length > Destination->MaximumLength)
        return STATUS_BUFFER_TOO_SMALL;
    memmove(reinterpret_cast<PUCHAR>(Destination->Buffer) + Destination->Length, Source->Buffer, Source->Length);
    Destination->Length = static_cast<USHORT>(Destination->Length + Source->Length);
    if (Destination->Length + sizeof(WCHAR) <= Destination->MaximumLength)
        Destination->Buffer[Destination->Length / sizeof(WCHAR)] = 0;
    return STATUS_SUCCESS;
}

NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source)
{
    UNICODE_STRING source;
    RtlInitUnicodeString(&source, Source);
    return RtlAppendUnicodeStringToString(Destination, &source);
}

BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING A, PCUNICODE_STRING B, BOOLEAN CaseInSensitive)
{
    const std::string a = toUtf8(A), b = toUtf8(B);
    return CaseInSensitive ? lowerCase(a) == lowerCase(b) : a == b;
}

SIZE_T RtlCompareMemory(const VOID *A, const VOID *B, SIZE_T Length)
{
    auto *a = static_cast<const std::uint8_t *>(A);
    auto *b = static_cast<const std::uint8_t *>(B);
    return static_cast<SIZE_T>(std::mismatch(a, a + Length, b).first - a);
}

} // extern "C"
