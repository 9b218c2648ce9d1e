// A gateway client on a private LAN whose host does what it likes in every event and in every message, against
// gateways that misbehave.

#include <functional>

#include "RandomHost.h"
#include "tavronet/api/UPnPApi.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPNetwork.h"
#include "tavronet/upnp/UPnPService.h"
#include "tests/support/GatewayProcess.h"
#include "tests/support/OnPrivateLan.h"

namespace
{

using Texts = std::vector<std::string>;

const Texts kGateways[] = {
    {},
    {"--description", "one-line,version2,prefixed", "--transfer", "chunked"},
    {"--transfer", "close", "--answer-copies", "3"},
    {"--refuse-connection"},
    {"--close-early", "soap:40", "--alive-after", "50"},
    {"--reset", "GetExternalIPAddress:20", "--byebye-after", "100"},
    {"--never-answer", "soap:3", "--update-after", "50"},
    {"--never-answer", "description"},
    {"--garbage", "description:2", "--garbage", "DeletePortMapping"},
    {"--endless-body", "GetExternalIPAddress"},
    {"--slow", "soap:200", "--capacity", "3"},
    {"--refuse", "1-9:718", "--forget-mappings"},
    {"--endless-table", "--alter-mapping"},
    {"--transfer", "wrong-length-long", "--embedding", "40"},
};

class GatewayHost : public RandomHost
{
public:
    explicit GatewayHost(unsigned seed) : RandomHost(seed)
    {
        s_Now = OneIn(4) ? 0xFFFFFFFF - 20000 : 1000000; // the counter wraps, now and then
        SetTickSource([] { return s_Now; });
        SetWaitHook([](void* raw) { static_cast<GatewayHost*>(raw)->TimePasses(); }, this);
        for (const char* const address : {"10.77.1.1", "10.77.2.1"}) {
            Texts options = Pick(kGateways);
            options.insert(options.end(), {"--address", address, "--uuid", address});
            m_Gateways.push_back(std::make_unique<tavronet::GatewayProcess>(
                options, tavronet::GatewayProcess::Place::GatewayOfLan));
        }
    }
    ~GatewayHost()
    {
        m_Network.reset();
        UPnPClose();
        SetWaitHook(nullptr, nullptr);
        SetTickSource(nullptr);
        CloseHandle(m_Cancel);
    }

    void Run()
    {
        TakeSteps(3000, [this] { Act(nullptr); });
        SetWaitHook(nullptr, nullptr);
        if (m_Network != nullptr)
            ExpectIdle();
        UPnPClose();
        EXPECT_EQ(UPnPTickle(), UPnPNoNetwork);
    }

private:
    struct PortMaps : std::vector<CUPnPPortMap*>
    {
        ~PortMaps() { CUPnPDevice::ReleasePortMaps(*this); }
    };

    struct Tree : CUPnPDevice // sees what nodes show only to nodes
    {
        static CUPnPObject* First(const CUPnPDevice& device) { return (device.*&Tree::GetUPnPObject)(0); }
    };

    /// The wait hook: time flies, and the host has something to do.
    void TimePasses()
    {
        s_Now += Below(100);
        if (Settled() || OneIn(8))
            return; // the gateways get their turn
        const auto act = [](void* raw) { static_cast<GatewayHost*>(raw)->Act(nullptr); };
        PostThreadCall(CurrentThreadQueue(), act, this);
    }

    static void OnEvent(void* raw, unsigned int code, CUPnPObject* object)
    {
        auto& self = *static_cast<GatewayHost*>(raw);
        auto* const device = dynamic_cast<CUPnPDevice*>(object);
        if (code == UPnPEventDeviceNotify && self.OneIn(8))
            delete device;
        else if (code == UPnPEventDeviceNotify && self.OneIn(8))
            self.m_Network->NewUPnPDevice(device);
        else
            self.Act(device);
    }

    void Act(CUPnPDevice* concerned)
    {
        Perhaps([&] {
            switch (Below(8)) {
            case 0: return PumpOrThrow();
            case 1:
            case 2: return ActOnNetwork(concerned);
            case 3: return ActFlat();
            default: ActOnDevice(concerned);
            }
        });
    }

    void ActOnNetwork(CUPnPDevice* concerned)
    {
        if (m_Network == nullptr || OneIn(50)) {
            m_Network.reset();
            m_Network = std::make_unique<CUPnPNetwork>(OnEvent, this, static_cast<int>(Below(2)));
            return;
        }
        CUPnPNetwork& network = *m_Network;
        switch (Below(11)) {
        case 0: return network.Discover();
        case 1: return network.Rediscover();
        case 2: return network.ReleaseUPnPDevice(OneIn(2) ? concerned : Device());
        case 3: return network.Notify(Record("NOTIFY * HTTP/1.1\r\nNTS: ssdp:byebye"));
        case 4: return network.Notify(Record("NOTIFY * HTTP/1.1\r\nNTS: ssdp:alive"));
        case 5: return network.NewUPnPDevice(Record("HTTP/1.1 200 OK"));
        case 6: network.SetDialect(static_cast<int>(Below(2))); return;
        case 7: return network.SetCancelEvent(Cancel());
        default: network.Tickle();
        }
    }

    void ActOnDevice(CUPnPDevice* concerned)
    {
        CUPnPDevice* const device = concerned != nullptr && OneIn(2) ? concerned : Device();
        if (device == nullptr)
            return;
        CString text;
        bool enabled = false;
        PortMaps list;
        const unsigned port = Below(20);
        CUPnPPortMap record(port, "TCP", "10.77.1.2", "record");
        switch (Below(20)) {
        case 0: return device->RequestDescription();
        case 1: return device->SetMaxAge(-1);
        case 2: return device->SetRelease(OneIn(2));
        case 3: return device->ReleaseUPnPDeviceSockets();
        case 4: return CUPnPDevice::ReleasePortMaps(device->GetPortMaps());
        case 5: device->GetPortMaps().insert(device->GetPortMaps().begin(), nullptr); return;
        case 6: device->GetNATEnabled(Cancel(), enabled); return;
        case 7: device->AddPortMap(Cancel(), port, "indiv", nullptr); return;
        case 8: device->AddPortMap(Cancel(), &record); return;
        case 9: device->AddPortMaps(Cancel(), port, Below(4), "range %d", nullptr); return;
        case 10: device->AddPortMaps(Cancel(), port, Below(4), "range %d", list, "UDP"); return;
        case 11: device->DeletePortMap(Cancel(), port, nullptr); return;
        case 12: device->DeletePortMaps(Cancel()); return;
        case 13: device->DeleteIndivPortMaps(Cancel()); return;
        case 14: device->GetPortMaps(Cancel(), list); return;
        case 15: delete device->GetPortSpecificPortMap(Cancel(), record); return;
        case 16: device->Tickle(); return;
        case 17:
            if (CUPnPService* const service = device->FindConnectionService())
                ActOnService(*service);
            return;
        default: device->GetExternalIPAddress(Cancel(), text);
        }
    }

    void ActOnService(CUPnPService& service)
    {
        switch (Below(5)) {
        case 0: return service.ReleaseCommandQueue();
        case 1: return service.ReleaseUPnPServiceSocket(OneIn(2));
        case 2: service.Tickle(); return;
        default: service.Command(OneIn(2), Cancel(), "GetStatusInfo", "NewUptime", "", nullptr);
        }
    }

    void ActFlat()
    {
        const char* const local = OneIn(2) ? "10.77.1.2" : "10.77.2.2";
        char text[20];
        bool enabled = false;
        unsigned port = Below(20);
        switch (Below(12)) {
        case 0: UPnPClose(); return;
        case 1: UPnPSetDialect(static_cast<int>(Below(2))); return;
        case 2: UPnPDiscover(OneIn(4), Cancel()); return;
        case 3: UPnPDispatch(1); return;
        case 4: UPnPGetExternalIPAddress(Cancel(), local, text, sizeof text); return;
        case 5: UPnPGetDeviceNATEnabledByIndex(Cancel(), 0, &enabled); return;
        case 6: UPnPAddPortMap(Cancel(), local, port, "flat", nullptr); return;
        case 7: UPnPDeletePortMap(Cancel(), local, port, nullptr); return;
        case 8: UPnPAddPortMappingRange(Cancel(), local, &port, 3, "flat %d", "TCP"); return;
        case 9: UPnPDeletePortMappingRange(Cancel(), local, port, 3, "TCP"); return;
        default: UPnPTickle();
        }
    }

    CUPnPDevice* Device()
    {
        if (m_Network == nullptr)
            return nullptr;
        CUPnPDevice* device = m_Network->GetUPnPDevice(static_cast<int>(Below(m_Network->NumDevices())));
        while (device != nullptr && OneIn(3)) {
            auto* const embedded = dynamic_cast<CUPnPDevice*>(Tree::First(*device));
            if (embedded == nullptr)
                break;
            device = embedded;
        }
        return device;
    }

    CUPnPDevice* Record(const char* start)
    {
        const tavronet::GatewayProcess& gateway = *Pick(m_Gateways);
        std::string datagram = std::string(start) + "\r\nLOCATION: " + gateway.Url() +
                               "\r\nUSN: uuid:" + std::to_string(Below(9)) +
                               "\r\nCACHE-CONTROL: max-age=9\r\n\r\n";
        auto record = std::make_unique<CUPnPDevice>(nullptr, m_Network.get());
        record->Init("10.77.1.2", "10.77.1.1", 1900, datagram.data());
        return record.release();
    }

    HANDLE Cancel()
    {
        OneIn(16) ? SetEvent(m_Cancel) : ResetEvent(m_Cancel);
        return OneIn(4) ? m_Cancel : nullptr;
    }

    /// Nothing is under way any more, so that every device can be dropped, one by each call.
    void ExpectIdle()
    {
        for (int i = 0; CUPnPDevice* const device = m_Network->GetUPnPDevice(i); ++i) {
            if (CUPnPService* const service = device->FindConnectionService()) {
                service->ReleaseCommandQueue();
                service->ReleaseUPnPServiceSocket(false);
                service->Command(false, nullptr, "Probe", nullptr);
                EXPECT_EQ(service->GetCommand(), L"Probe") << "not queued behind one that has gone";
            }
            device->SetRelease(true);
        }
        for (std::size_t left = m_Network->NumDevices(); left > 0; --left)
            m_Network->Tickle();
        EXPECT_EQ(m_Network->NumDevices(), 0U);
    }

    inline static DWORD s_Now = 0;
    std::vector<std::unique_ptr<tavronet::GatewayProcess>> m_Gateways;
    std::unique_ptr<CUPnPNetwork> m_Network;
    const HANDLE m_Cancel = CreateEventW(nullptr, 1, 0, nullptr);
};

using RandomHostOnALan = tavronet::OnPrivateLan;

TEST_F(RandomHostOnALan, OfGatewaysLeavesNothingSet)
{
    RunHosts<GatewayHost>(12000);
}

} // namespace
