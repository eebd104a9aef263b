// The I/O manager's own requests and the handles programs hold.
#pragma once

#include "ntos/io.h"

namespace ntos {

struct ProcessObject : ObjectHeader {
    ProcessObject() : ObjectHeader(ObjectType::process) {}
    _KPROCESS process;
};
struct FileObjectRecord : ObjectHeader {
    FileObjectRecord() : ObjectHeader(ObjectType::file) {}
    FILE_OBJECT object{};
    std::vector<wchar_t> name;
};

namespace detail {

struct ProcessRecord {
    ProcessObject *object = nullptr;
    ~ProcessRecord();
};

struct PendingIo {
    std::mutex lock;
    std::condition_variable finished;
    bool done = false;
    bool cancelled = false;
    Result result;
    PIRP irp = nullptr;               // lives as long as this record
    std::shared_ptr<OpenFile> file;   // keeps the handle
    ~PendingIo();
};

struct OpenFile {
    FileObjectRecord *object = nullptr;
    PDEVICE_OBJECT device = nullptr;
    _KPROCESS *process = nullptr;
    std::mutex lock;
    bool closed = false;
    std::vector<std::weak_ptr<PendingIo>> requests;
    ~OpenFile();
};

} // namespace detail

void finishIo(PIRP irp, IrpRecord &record); // the request is complete
Result waitForIo(detail::PendingIo &io);
bool cancelIo(detail::PendingIo &io);
void closeFile(detail::OpenFile &file);
std::size_t openHandles();

} // namespace ntos
