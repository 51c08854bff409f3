// engine_fixture.cpp - creates an engine on its doubles, replaces the functions of Ecore's pipe, and runs the
// tests with Ecore initialised.
#include "engine_fixture.h"

#include "held_locks.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <cstdarg>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <utility>

PipeDouble& Pipe()
{
    static PipeDouble pipe;
    return pipe;
}

namespace {

// Records in the pipe that no reader has taken. Deleting the pipe frees no record, so freeUnread() frees
// them. The note of the writer and that of the reader may come in either order.
class RecordBooks {
public:
    void written(BILLING_RETURN_INFO_T* pInfo)
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        if (m_readBefore.erase(pInfo) == 0) {
            m_unread.insert(pInfo);
        }
    }
    void read(BILLING_RETURN_INFO_T* pInfo)
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        if (m_unread.erase(pInfo) == 0) {
            m_readBefore.insert(pInfo);
        }
    }
    void freeUnread()
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        for (BILLING_RETURN_INFO_T* pInfo : m_unread) {
            delete pInfo;
        }
        m_unread.clear();
        m_readBefore.clear();
    }

private:
    std::mutex m_lock;
    std::unordered_set<BILLING_RETURN_INFO_T*> m_unread;
    std::unordered_set<BILLING_RETURN_INFO_T*> m_readBefore;
};

RecordBooks& Books()
{
    static RecordBooks books;
    return books;
}

}  // namespace

extern "C" {
Ecore_Pipe* __real_ecore_pipe_add(Ecore_Pipe_Cb handler, const void* data);
Ecore_Pipe* __wrap_ecore_pipe_add(Ecore_Pipe_Cb handler, const void* data)
{
    Note("pipe add");
    return Pipe().bAddFails ? nullptr : __real_ecore_pipe_add(handler, data);
}
Eina_Bool __real_ecore_pipe_write(Ecore_Pipe* pipe, const void* buffer, unsigned int bytes);
Eina_Bool __wrap_ecore_pipe_write(Ecore_Pipe* pipe, const void* buffer, unsigned int bytes)
{
    Note(HeldLocks() == 1 ? "pipe write" : "pipe write without its lock");
    if (Pipe().bWriteFails || !__real_ecore_pipe_write(pipe, buffer, bytes)) {
        return EINA_FALSE;
    }
    // Stands before the unlock. The reader may have received the record by now, but not have called read().
    Books().written(*static_cast<BILLING_RETURN_INFO_T* const*>(buffer));
    return EINA_TRUE;
}
// The name of fcntl with 64-bit file offsets.
int __real_fcntl64(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long value = va_arg(arguments, long);
    va_end(arguments);
    if (command == F_SETPIPE_SZ && Pipe().bSizeFails) {
        errno = EPERM;
        return -1;
    }
    return __real_fcntl64(fd, command, value);
}
void* __real_ecore_pipe_del(Ecore_Pipe* pipe);
void* __wrap_ecore_pipe_del(Ecore_Pipe* pipe)
{
    Note(pipe == nullptr    ? "pipe del of no pipe"
         : HeldLocks() == 1 ? "pipe del"
                            : "pipe del without its lock");
    return __real_ecore_pipe_del(pipe);
}
}

bool operator==(const Result& a, const Result& b)
{
    return a.eReqType == b.eReqType && a.iRespResult == b.iRespResult &&
           a.strRespInfo == b.strRespInfo && a.pUser == b.pUser;
}

std::ostream& operator<<(std::ostream& out, const Result& result)
{
    return out << "{" << result.eReqType << " " << result.iRespResult << " " << result.strRespInfo
               << " " << result.pUser << "}";
}

void AnEngine::Receive(void* data, void* buffer, unsigned int nbyte)
{
    auto* self = static_cast<AnEngine*>(data);
    self->m_messageSizes.push_back(nbyte);
    const std::unique_ptr<BILLING_RETURN_INFO_T> info(
        *static_cast<BILLING_RETURN_INFO_T**>(buffer));
    Books().read(info.get());
    self->m_results.push_back({info->eReqType, info->iRespResult, info->strRespInfo, info->pUser});
    self->m_last = std::move(*info);
}

void AnEngine::SetUp()
{
    fake::platform().reset();
    Protocol() = ProtocolDouble();
    ASSERT_TRUE(m_oEngine.RegisterPipeCallback(Receive, this));
    fake::platform().clearTimeline();
}

void AnEngine::TearDown()
{
    Pipe() = PipeDouble();
    for (const ProtocolCall& call : Protocol().calls) {
        if (Protocol().bAccepts && !m_bAnswered) {
            delete call.pContext;
        }
    }
    m_oEngine.Destroy();
    Books().freeUnread();
}

std::vector<Result> AnEngine::resultsOnPipe(std::size_t expected)
{
    TurnUntil([&] { return m_results.size() >= expected; });
    return m_results;
}

CBillingItem AnEngine::anItem()
{
    CBillingItem oItem;
    oItem.strAppId = "app";
    oItem.strInvoiceId = "invoice";
    oItem.strCustomId = "custom";
    oItem.strPageNumber = "5";
    oItem.strItemType = "9";
    oItem.strCheckValue = "check";
    return oItem;
}

int main(int argc, char** argv)
{
    ::testing::InitGoogleMock(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new EcoreEnvironment);
    return RUN_ALL_TESTS();
}
