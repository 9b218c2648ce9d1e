#include "tavronet/upnp/UPnPObject.h"

#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "tavronet/platform/Event.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/TickCount.h"

namespace
{

/// A node that shows its protected members and tells when it dies.
class Node : public CUPnPObject
{
public:
    explicit Node(Node* parent = nullptr, std::string* graves = nullptr, const char* name = "")
        : CUPnPObject(parent), m_pGraves(graves), m_Name(name)
    {
    }
    ~Node() override
    {
        if (m_pGraves != nullptr)
            *m_pGraves += m_Name;
    }

    using CUPnPObject::AddUPnPObject;
    using CUPnPObject::GetCancelEvent;
    using CUPnPObject::GetUPnPObject;
    using CUPnPObject::NumUPnPObjects;
    using CUPnPObject::ReleaseUPnPObjects;
    using CUPnPObject::UPnPEvent;
    using CUPnPObject::WaitEvent;

    bool Tickle() override { return true; }

protected:
    void ProcessHTML(CUPnPHTTPSocket*, const char*, int, const char*, int) override {}

private:
    std::string* m_pGraves;
    std::string m_Name;
};

TEST(UPnPObject, ChildrenDieWithTheirParentInOrder)
{
    std::string graves;
    {
        Node root(nullptr, &graves, "r");
        auto* const first = new Node(&root, &graves, "a");
        root.AddUPnPObject(first);
        first->AddUPnPObject(new Node(first, &graves, "b"));
        root.AddUPnPObject(nullptr);
        root.AddUPnPObject(new Node(&root, &graves, "c"));

        EXPECT_EQ(root.ParentDepth(), 0);
        EXPECT_EQ(first->GetUPnPObject(0)->ParentDepth(), 2);
        EXPECT_EQ(root.GetUPnPObject(3), nullptr);
        EXPECT_EQ(root.GetUPnPObject(-1), nullptr);
        EXPECT_EQ(first->GetUPnPNetwork(), nullptr);
        EXPECT_EQ(first->GetCancelEvent(), nullptr);
        first->UPnPEvent(UPnPEventDeviceDescribed); // nobody to tell

        first->ReleaseUPnPObjects();
        EXPECT_EQ(graves, "b");
        EXPECT_EQ(first->NumUPnPObjects(), 0U);
    }
    EXPECT_EQ(graves, "brac");
}

TEST(UPnPObject, TypesAreToldByTheirExactBeginning)
{
    const struct
    {
        const wchar_t* type;
        bool isDevice;
        bool isService;
    } kRows[] = {
        {L"urn:schemas-upnp-org:device:WANConnectionDevice:1", true, false},
        {L"urn:schemas-upnp-org:service:WANIPConnection:1", false, true},
        {L" urn:schemas-upnp-org:device:WANConnectionDevice:1", false, false},
        {L"URN:SCHEMAS-UPNP-ORG:DEVICE:WANCONNECTIONDEVICE:1", false, false},
        {L"urn:dslforum-org:device:InternetGatewayDevice:1", false, false},
        {L"", false, false},
    };
    for (const auto& row : kRows) {
        Node node;
        node.GetType() = row.type;
        EXPECT_EQ(node.IsDevice(), row.isDevice) << row.type;
        EXPECT_EQ(node.IsService(), row.isService) << row.type;
    }
}

/// Events for one test, and a clock that stands still until it is moved.
class UPnPObjectWait : public testing::Test
{
protected:
    UPnPObjectWait()
    {
        s_Now = 0xFFFFF000; // the counter wraps during a wait
        SetTickSource([] { return s_Now; });
    }
    ~UPnPObjectWait() override
    {
        SetTickSource(nullptr);
        CloseHandle(m_Event);
        CloseHandle(m_Cancel);
    }

    /// Has `call` run at the next dispatch.
    static void Post(void (*call)(void*), void* argument)
    {
        PostThreadCall(CurrentThreadQueue(), call, argument);
    }

    inline static DWORD s_Now = 0;
    const HANDLE m_Event = CreateEventW(nullptr, 1, 0, nullptr);
    const HANDLE m_Cancel = CreateEventW(nullptr, 1, 0, nullptr);
    std::unique_ptr<Node> m_Node = std::make_unique<Node>();
};

TEST_F(UPnPObjectWait, EndsWithTheEventAndDispatchesOnceBefore)
{
    bool dispatched = false;
    Post([](void* flag) { *static_cast<bool*>(flag) = true; }, &dispatched);
    SetEvent(m_Event);
    EXPECT_TRUE(m_Node->WaitEvent(m_Event, nullptr));
    EXPECT_TRUE(dispatched);
}

TEST_F(UPnPObjectWait, AnEventSetByAMessageOrAnotherThreadEndsIt)
{
    Post([](void* event) { SetEvent(event); }, m_Event);
    EXPECT_TRUE(m_Node->WaitEvent(m_Event, m_Cancel));

    ResetEvent(m_Event);
    std::thread other([this] { SetEvent(m_Event); });
    EXPECT_TRUE(m_Node->WaitEvent(m_Event, m_Cancel));
    other.join();
}

TEST_F(UPnPObjectWait, CancelAndInvalidHandlesFailAtOnce)
{
    SetEvent(m_Cancel);
    EXPECT_FALSE(m_Node->WaitEvent(m_Event, m_Cancel));
    SetEvent(m_Event);
    EXPECT_TRUE(m_Node->WaitEvent(m_Event, m_Cancel)); // the event comes first

    const HANDLE closed = CreateEventW(nullptr, 1, 1, nullptr);
    CloseHandle(closed);
    EXPECT_FALSE(m_Node->WaitEvent(closed, nullptr));
}

TEST_F(UPnPObjectWait, MessagesWithoutEndDoNotProlongIt)
{
    // Each message takes a tenth of a second and posts the next one.
    static int s_Messages;
    static bool s_Stop;
    s_Messages = 0;
    s_Stop = false;
    struct Chain
    {
        static void Next(void*)
        {
            s_Now += 100;
            ++s_Messages;
            if (!s_Stop)
                Post(&Next, nullptr);
        }
    };
    Post(&Chain::Next, nullptr);
    EXPECT_FALSE(m_Node->WaitEvent(m_Event, nullptr));
    EXPECT_GE(s_Messages, 100);
    EXPECT_LE(s_Messages, 250); // what goes past the end is one bounded dispatch

    s_Stop = true;
    CUPnPObject::DispatchMessages();
}

TEST_F(UPnPObjectWait, ADeletedNodeEndsItAsFailed)
{
    Post([](void* node) { static_cast<std::unique_ptr<Node>*>(node)->reset(); }, &m_Node);
    SetEvent(m_Event);
    EXPECT_FALSE(m_Node->WaitEvent(m_Event, nullptr));
    EXPECT_EQ(m_Node, nullptr);
}

TEST_F(UPnPObjectWait, AnExceptionOfAMessageLeavesIt)
{
    Post([](void*) { throw std::runtime_error("host"); }, nullptr);
    EXPECT_THROW((void)m_Node->WaitEvent(m_Event, nullptr), std::runtime_error);
    SetEvent(m_Event);
    EXPECT_TRUE(m_Node->WaitEvent(m_Event, nullptr));
}

} // namespace
