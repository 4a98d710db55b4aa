#include "virtual/Usbip.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "virtual/Descriptors.h"

namespace kovsim {

using usbstack::Status;

namespace {

constexpr uint16_t VERSION = 0x0111;
enum Operation : uint16_t { REQ_IMPORT = 0x8003, REQ_DEVLIST = 0x8005, REPLY = 0x7FFF };  // a reply has the top bit cleared
enum Command : uint32_t { CMD_SUBMIT = 1, CMD_UNLINK = 2, RET_SUBMIT = 3, RET_UNLINK = 4 };
enum ImportStatus : uint32_t { ST_OK = 0, ST_BUSY = 2, ST_NO_DEVICE = 4 };
enum SpeedCode : uint32_t { HIGH = 3, SUPER = 5 };
constexpr size_t OPERATION = 8, BUS_ID = 32, PATH = 256, HEADER = 48, SETUP = 40;
constexpr uint32_t SHORT_NOT_OK = 1, NO_PACKETS = 0xFFFFFFFF, BULK_NUMBER = BULK_IN & 15;

// Errors are those of Linux, whatever system this runs on.
constexpr int32_t ERROR_PIPE = -32, ERROR_OVERFLOW = -75, ERROR_RESET = -104, ERROR_REMOTE_IO = -121;

uint32_t Get32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
uint16_t Get16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }

// Numbers in network order, one behind the other.
class Writer {
public:
    Writer& U8(uint32_t v) { return bytes.push_back(uint8_t(v)), *this; }
    Writer& U16(uint32_t v) { return U8(v >> 8).U8(v); }
    Writer& U32(uint32_t v) { return U16(v >> 16).U16(v); }
    // Cut or filled up with zeros, the last byte always one.
    Writer& Text(const std::string& text, size_t size)
    {
        const size_t end = bytes.size() + size;
        bytes.insert(bytes.end(), text.begin(), text.begin() + std::ptrdiff_t(std::min(text.size(), size - 1)));
        bytes.resize(end);
        return *this;
    }
    std::vector<uint8_t> bytes;
};

Writer Reply(uint32_t command, uint32_t uSequence, int32_t status)
{
    Writer w;
    w.U32(command).U32(uSequence).U32(0).U32(0).U32(0).U32(uint32_t(status));
    return w;
}

std::vector<uint8_t> SubmitReply(uint32_t uSequence, int32_t status, uint32_t uMoved)
{
    Writer w = Reply(RET_SUBMIT, uSequence, status);
    w.U32(uMoved);
    w.bytes.resize(HEADER);  // no packets of isochronous pipes, no errors of theirs
    return w.bytes;
}

int32_t ErrorOf(Status status, bool bShort)
{
    switch (status) {
    case Status::Ok: return bShort ? ERROR_REMOTE_IO : 0;
    case Status::Failed: return ERROR_OVERFLOW;
    default: return ERROR_PIPE;
    }
}

std::vector<uint8_t> GetDescriptor(UsbDevice& device, uint8_t type, uint8_t length)
{
    auto answer = device.Control({ 0x80, 6, 0, type, 0, 0, length, 0 }, {});
    answer.data.resize(length);  // a camera that goes at this moment is all zeros
    return std::move(answer.data);
}

// What list and import tell of a device. All of it is in its descriptors.
struct DeviceRecord {
    DeviceRecord(const UsbipExports::Export& e, UsbDevice& source)
    {
        const auto d = GetDescriptor(source, 1, 18), c = GetDescriptor(source, 2, 18);
        const auto word = [&](size_t at) { return uint32_t(d[at] | d[at + 1] << 8); };
        Writer w;
        w.Text("/sys/devices/kovsim/" + e.sBusId, PATH)
            .Text(e.sBusId, BUS_ID)
            .U32(e.info.bus)
            .U32(e.info.address)
            .U32(e.info.speed == usbstack::Speed::Super ? SUPER : HIGH)
            .U16(word(8))
            .U16(word(10))
            .U16(word(12))
            .U8(d[4])
            .U8(d[5])
            .U8(d[6])
            .U8(c[5])
            .U8(d[17])
            .U8(c[4]);
        device = w.bytes;
        firstInterface = { c[14], c[15], c[16], 0 };
    }
    std::vector<uint8_t> device, firstInterface;
};

}  // namespace

// A request with the camera, and the reply that it becomes: data land behind the header.
struct UsbipSession::Transfer {
    Transfer(UsbipSession* session, const Waiting& w)
        : pSession(session), uSequence(w.uSequence), bShortNotOk(w.bShortNotOk),
          reply(new uint8_t[HEADER + w.uLength])  // not touched before data come
    {
        request.endpoint = BULK_IN;
        request.data = reply.get() + HEADER;
        request.length = w.uLength;
        request.context = this;
        request.OnComplete = OnComplete;
    }
    UsbipSession* const pSession;
    const uint32_t uSequence;
    const bool bShortNotOk;
    std::unique_ptr<uint8_t[]> reply;
    usbstack::BulkRequest request;
    Status status = Status::Ok;
    uint32_t uMoved = 0;
    size_t Cost() const { return HEADER + request.length; }
};

std::vector<UsbipExports::Export> UsbipExports::List()
{
    std::vector<Export> out;
    const auto present = m_bus.Enumerate();
    std::lock_guard lock(m_mutex);
    for (const auto& info : present) {
        const std::string id = std::to_string(info.bus) + "-" + info.portPath;
        out.push_back({ info, id, m_taken.contains(id) });
    }
    return out;
}

UsbipSession::UsbipSession(UsbipExports& exports, std::function<void()> wake) : m_exports(exports), m_wake(std::move(wake)) {}

UsbipSession::~UsbipSession()
{
    if (!m_device)
        return;
    m_device->Replug();
    m_device.reset();  // from here on nothing completes any more
    std::lock_guard lock(m_exports.m_mutex);
    m_exports.m_taken.erase(m_sBusId);
}

bool UsbipSession::End(std::string sWhy)
{
    if (m_sEnded.empty())
        m_sEnded = std::move(sWhy);
    return false;
}

bool UsbipSession::Receive(std::span<const uint8_t> bytes)
{
    m_in.insert(m_in.end(), bytes.begin(), bytes.end());
    size_t at = 0;
    while (m_sEnded.empty()) {
        const std::span<const uint8_t> rest(m_in.data() + at, m_in.size() - at);
        const size_t n = m_device ? TakeCommand(rest) : TakeOperation(rest);
        if (n == 0)
            break;
        at += n;
    }
    m_in.erase(m_in.begin(), m_in.begin() + std::ptrdiff_t(at));
    return m_sEnded.empty() && Step();
}

// --- before a camera is imported ---

size_t UsbipSession::TakeOperation(std::span<const uint8_t> in)
{
    if (in.size() < OPERATION)
        return 0;
    const unsigned version = Get16(&in[0]), code = Get16(&in[2]);
    if (version != VERSION)
        return End("does not speak USB/IP 1.1.1");
    if (code == REQ_DEVLIST) {
        AnswerList();
        return OPERATION;
    }
    if (code != REQ_IMPORT)
        return End("asks for the unknown operation " + std::to_string(code));
    if (in.size() < OPERATION + BUS_ID)
        return 0;
    const char* const id = reinterpret_cast<const char*>(&in[OPERATION]);
    Import(std::string(id, strnlen(id, BUS_ID)));
    return OPERATION + BUS_ID;
}

void UsbipSession::AnswerList()
{
    Writer w;
    uint32_t count = 0;
    for (const auto& e : m_exports.List()) {
        const auto device = e.bTaken ? nullptr : m_exports.m_bus.OpenDevice(e.info.path);
        if (!device)
            continue;
        const DeviceRecord record(e, *device);
        w.bytes.insert(w.bytes.end(), record.device.begin(), record.device.end());
        w.bytes.insert(w.bytes.end(), record.firstInterface.begin(), record.firstInterface.end());
        ++count;
    }
    Put(Writer().U16(VERSION).U16(REQ_DEVLIST & REPLY).U32(ST_OK).U32(count).bytes);
    Put(w.bytes);
}

void UsbipSession::Import(const std::string& sBusId)
{
    const auto list = m_exports.List();
    const auto e = std::find_if(list.begin(), list.end(), [&](const auto& x) { return x.sBusId == sBusId; });
    uint32_t status = ST_NO_DEVICE;
    std::unique_ptr<UsbDevice> device;
    if (e != list.end() && (device = m_exports.m_bus.OpenDevice(e->info.path))) {
        std::lock_guard lock(m_exports.m_mutex);
        status = m_exports.m_taken.insert(sBusId).second ? ST_OK : ST_BUSY;
    }
    Put(Writer().U16(VERSION).U16(REQ_IMPORT & REPLY).U32(status).bytes);
    if (status != ST_OK)
        return;
    m_device = std::move(device);
    m_sBusId = sBusId;
    m_uDeviceId = uint32_t(e->info.bus) << 16 | e->info.address;
    Put(DeviceRecord(*e, *m_device).device);
}

// --- afterwards ---

size_t UsbipSession::TakeCommand(std::span<const uint8_t> in)
{
    if (in.size() < HEADER)
        return 0;
    const auto field = [&](size_t i) { return Get32(&in[4 * i]); };
    const uint32_t command = field(0), sequence = field(1), isIn = field(3), endpoint = field(4), flags = field(5),
                   length = field(6), packets = field(8);
    const auto refuse = [&](const char* szWhat) { return End("request " + std::to_string(sequence) + " " + szWhat); };
    if (field(2) != m_uDeviceId)
        return refuse("is for another device");
    if (command == CMD_UNLINK) {
        Unlink(sequence, field(5));
        return HEADER;
    }
    if (command != CMD_SUBMIT)
        return refuse("is neither submit nor unlink");
    if (isIn > 1)
        return refuse("has no direction");
    if (packets != 0 && packets != NO_PACKETS)
        return refuse("is isochronous");
    if (endpoint == 0) {
        const uint8_t* const setup = &in[SETUP];
        const uint32_t wanted = uint32_t(setup[6] | setup[7] << 8);
        if (length != wanted || (length && isIn != uint32_t(setup[0] >> 7)))
            return refuse("contradicts its own setup packet");
        const size_t data = isIn ? 0 : length;
        if (in.size() < HEADER + data)
            return 0;
        if (m_late.size() >= MAX_WAITING)
            return refuse("is one too many");
        return SubmitControl(in.first(HEADER), in.subspan(HEADER, data)) ? HEADER + data : 0;
    }
    if (endpoint != BULK_NUMBER || !isIn)
        return refuse("is for an endpoint that there is not");
    if (length > MAX_TRANSFER)
        return refuse("asks for more than 64 MiB");
    if (m_waiting.size() + m_transfers.size() >= MAX_WAITING)
        return refuse("is one too many");
    m_waiting.push_back({ sequence, length, (flags & SHORT_NOT_OK) != 0 });
    return HEADER;
}

bool UsbipSession::SubmitControl(std::span<const uint8_t> header, std::span<const uint8_t> data)
{
    std::array<uint8_t, 8> setup;
    std::copy_n(header.begin() + SETUP, setup.size(), setup.begin());
    const uint32_t sequence = Get32(&header[4]), length = Get32(&header[24]);
    UsbDevice::Answer answer = m_device->Control(setup, { data.begin(), data.end() });
    if (answer.status == Status::Gone)
        return End("the camera was pulled out");
    const bool asks = (setup[0] & 0x80) != 0, ok = answer.status == Status::Ok;
    const bool isShort = asks && answer.data.size() < length && (Get32(&header[20]) & SHORT_NOT_OK);
    const uint32_t moved = !ok ? 0 : asks ? uint32_t(answer.data.size()) : length;
    std::vector<uint8_t> reply = SubmitReply(sequence, ErrorOf(answer.status, isShort), moved);
    reply.insert(reply.end(), answer.data.begin(), answer.data.end());
    // One pipe: no answer overtakes an earlier one.
    const auto due = m_late.empty() ? answer.due : std::max(answer.due, m_late.back().due);
    m_uMoving += reply.size();
    m_late.push_back({ sequence, due, std::move(reply) });
    return true;
}

// True: the request had not completed, and now never will.
bool UsbipSession::TakeBack(uint32_t uVictim)
{
    if (std::erase_if(m_waiting, [&](const Waiting& w) { return w.uSequence == uVictim; }))
        return true;
    for (auto it = m_late.begin(); it != m_late.end(); ++it) {
        if (it->uSequence != uVictim)
            continue;
        m_device->NoteLostReply();
        m_uMoving -= it->reply.size();
        m_late.erase(it);
        return true;
    }
    const auto it = std::find_if(m_transfers.begin(), m_transfers.end(), [&](const auto& t) { return t->uSequence == uVictim; });
    if (it == m_transfers.end())
        return false;
    Transfer& t = **it;
    m_device->Unlink(&t.request);
    return t.status == Status::Cancelled;
}

void UsbipSession::Unlink(uint32_t uSequence, uint32_t uVictim)
{
    Reap();
    const bool back = TakeBack(uVictim);
    Reap();  // one that completed in this very moment is answered first
    Writer w = Reply(RET_UNLINK, uSequence, back ? ERROR_RESET : 0);
    w.bytes.resize(HEADER);
    Put(w.bytes);
}

void UsbipSession::OnComplete(usbstack::BulkRequest* request, Status status, uint32_t bytes)
{
    Transfer& t = *static_cast<Transfer*>(request->context);
    UsbipSession& session = *t.pSession;
    std::lock_guard lock(session.m_mutex);
    t.status = status;
    t.uMoved = bytes;
    session.m_ready.push_back(&t);
    session.m_wake();
}

// Completed requests become replies.
void UsbipSession::Reap()
{
    std::deque<Transfer*> ready;
    {
        std::lock_guard lock(m_mutex);
        ready.swap(m_ready);
    }
    for (Transfer* t : ready) {
        const auto it = std::find_if(m_transfers.begin(), m_transfers.end(), [&](const auto& p) { return p.get() == t; });
        if (t->status == Status::Gone)
            End("the camera was pulled out");
        if (t->status == Status::Cancelled || t->status == Status::Gone) {
            m_uMoving -= t->Cost();
        } else {
            const bool isShort = t->bShortNotOk && t->uMoved < t->request.length;
            const auto header = SubmitReply(t->uSequence, ErrorOf(t->status, isShort), t->uMoved);
            std::copy(header.begin(), header.end(), t->reply.get());
            m_out.push_back({ std::move(t->reply), HEADER + t->uMoved, t->Cost() });
        }
        m_transfers.erase(it);
    }
}

void UsbipSession::Refill()
{
    while (!m_waiting.empty() && (m_uMoving == 0 || m_uMoving + m_waiting.front().uLength <= WINDOW)) {
        auto& t = *m_transfers.emplace_back(std::make_unique<Transfer>(this, m_waiting.front()));
        m_waiting.pop_front();
        m_uMoving += t.Cost();
        if (m_device->SubmitBulk(&t.request) == Status::Ok)
            continue;
        m_uMoving -= t.Cost();
        m_transfers.pop_back();
        End("the camera was pulled out");
        return;
    }
}

bool UsbipSession::Step()
{
    if (!m_device || !m_sEnded.empty())
        return m_sEnded.empty();
    Reap();
    const auto now = std::chrono::steady_clock::now();
    while (!m_late.empty() && m_late.front().due <= now) {
        m_uMoving -= m_late.front().reply.size();
        Put(m_late.front().reply);
        m_late.pop_front();
    }
    Refill();
    if (!m_device->Present())
        End("the camera was pulled out");
    return m_sEnded.empty();
}

std::optional<std::chrono::steady_clock::time_point> UsbipSession::Due() const
{
    if (m_late.empty())
        return {};
    return m_late.front().due;
}

// --- output ---

void UsbipSession::Put(const std::vector<uint8_t>& bytes)
{
    if (bytes.empty())
        return;
    Block b{ std::unique_ptr<uint8_t[]>(new uint8_t[bytes.size()]), bytes.size(), bytes.size() };
    std::copy(bytes.begin(), bytes.end(), b.bytes.get());
    m_uMoving += b.uCost;
    m_out.push_back(std::move(b));
}

std::span<const uint8_t> UsbipSession::Output() const
{
    if (m_out.empty())
        return {};
    return { m_out.front().bytes.get() + m_uOutAt, m_out.front().uSize - m_uOutAt };
}

void UsbipSession::Sent(size_t bytes)
{
    m_uOutAt += bytes;
    if (m_out.empty() || m_uOutAt < m_out.front().uSize)
        return;
    m_uMoving -= m_out.front().uCost;
    m_out.pop_front();
    m_uOutAt = 0;
}

}  // namespace kovsim
