// A gateway client on a private LAN whose host does what it likes in every event and in every message, against
// gateways that misbehave.

#include "RandomHost.h"
#include "tavronet/api/UPnPApi.h"
#include "tavronet/platform/Event.h"
#include "tests/support/Programs.h"
#include "tests/upnp/GatewayRecords.h"

namespace
{

using Texts = std::vector<std::string>;
using tavronet::GatewayProcess;

const Texts kGateways[] = {
    {"--description", "one-line,version2,prefixed", "--transfer", "chunked"},
    {"--transfer", "close", "--answer-copies", "3"},
    {"--refuse-connection"},
    {"--close-early", "soap:40", "--alive-after", "50"},
    {"--reset", "GetExternalIPAddress:20", "--byebye-after", "100"},
    {"--never-answer", "soap:3", "--update-after", "50"},
    {"--never-answer", "description"},
    {"--garbage", "description:2", "--garbage", "DeletePortMapping"},
    {"--endless-body", "GetExternalIPAddress", "--endless-table"},
    {"--slow", "soap:200", "--capacity", "3"},
    {"--refuse", "1-9:718", "--forget-mappings"},
};

class GatewayHost : public RandomHost
{
public:
    explicit GatewayHost(unsigned seed) : RandomHost(seed)
    {
        SetWaitHook([](void* raw) { static_cast<GatewayHost*>(raw)->TimePasses(); }, this);
        for (const char* const address : {"10.77.1.1", "10.77.2.1"}) {
            Texts options = Pick(kGateways);
            options.insert(options.end(), {"--address", address, "--uuid", address});
            m_Gateways.push_back(std::make_unique<GatewayProcess>(options));
        }
    }
    ~GatewayHost() override
    {
        m_Network.reset();
        UPnPClose();
        SetWaitHook(nullptr, nullptr);
        CloseHandle(m_Cancel);
    }

private:
    struct PortMaps : PortMapList
    {
        ~PortMaps() { CUPnPDevice::ReleasePortMaps(*this); }
    };

    /// The wait hook: time flies, and the host has something to do.
    void TimePasses()
    {
        TestClock::Advance(Below(100));
        if (m_Settled || OneIn(8))
            return; // the gateways get their turn
        const auto act = [](void* raw) { static_cast<GatewayHost*>(raw)->Act(); };
        PostThreadCall(CurrentThreadQueue(), act, this);
    }
    static void OnEvent(void* raw, unsigned int code, CUPnPObject* object)
    {
        auto& self = *static_cast<GatewayHost*>(raw);
        auto* const device = dynamic_cast<CUPnPDevice*>(object);
        if (code != UPnPEventDeviceNotify || !self.OneIn(4))
            self.ActOn(device);
        else if (self.OneIn(2))
            delete device;
        else
            self.m_Network->NewUPnPDevice(device);
    }

    void Act() override { ActOn(nullptr); }
    void ActOn(CUPnPDevice* concerned)
    {
        Perhaps([&] { Do(concerned != nullptr && OneIn(2) ? concerned : Device()); });
    }
    void Do(CUPnPDevice* device)
    {
        if (m_Network == nullptr || OneIn(200)) {
            m_Network.reset();
            m_Network = std::make_unique<CUPnPNetwork>(OnEvent, this, static_cast<int>(Below(2)));
            return;
        }
        CUPnPService* const service = device != nullptr ? device->FindConnectionService() : nullptr;
        const char* const local = OneIn(2) ? "10.77.1.2" : "10.77.2.2";
        unsigned port = Below(20);
        bool enabled = false;
        CString text;
        PortMaps list;
        CUPnPPortMap record(port, "TCP", local, "record");
        switch (Below(service != nullptr ? 44 : device != nullptr ? 40 : 22)) {
        case 0: UPnPClose(); return;
        case 1: UPnPSetDialect(static_cast<int>(Below(2))); return;
        case 2: UPnPDiscover(OneIn(4), Cancel()); return;
        case 3: UPnPGetDeviceNATEnabledByIndex(Cancel(), 0, &enabled); return;
        case 4: UPnPAddPortMap(Cancel(), local, port, "flat", nullptr); return;
        case 5: UPnPAddPortMappingRange(Cancel(), local, &port, 3, "flat %d", "TCP"); return;
        case 6: UPnPDeletePortMappingRange(Cancel(), local, port, 3, "TCP"); return;
        case 7: UPnPTickle(); return;
        case 8: return m_Network->Discover();
        case 9: return m_Network->Rediscover();
        case 10: return m_Network->ReleaseUPnPDevice(device);
        case 11: return m_Network->Notify(Record("ssdp:byebye"));
        case 12: return m_Network->Notify(Record("ssdp:alive"));
        case 13: return m_Network->NewUPnPDevice(Record(""));
        case 14: m_Network->SetDialect(static_cast<int>(Below(2))); return;
        case 15: return m_Network->SetCancelEvent(Cancel());
        default: return OneIn(2) ? PumpOrThrow() : m_Network->Tickle();
        case 22: return device->RequestDescription();
        case 23: return device->SetMaxAge(-1);
        case 24: return device->SetRelease(OneIn(2));
        case 25: return device->ReleaseUPnPDeviceSockets();
        case 26: return CUPnPDevice::ReleasePortMaps(device->GetPortMaps());
        case 27: device->GetPortMaps().insert(device->GetPortMaps().begin(), nullptr); return;
        case 28: device->GetNATEnabled(Cancel(), enabled); return;
        case 29: device->AddPortMap(Cancel(), port, "indiv", nullptr); return;
        case 30: device->AddPortMap(Cancel(), &record); return;
        case 31: device->AddPortMaps(Cancel(), port, Below(4), "range %d", nullptr); return;
        case 32: device->AddPortMaps(Cancel(), port, Below(4), "range %d", list, "UDP"); return;
        case 33: device->DeletePortMap(Cancel(), port, nullptr); return;
        case 34: device->DeletePortMaps(Cancel()); return;
        case 35: device->DeleteIndivPortMaps(Cancel()); return;
        case 36: device->GetPortMaps(Cancel(), list); return;
        case 37: delete device->GetPortSpecificPortMap(Cancel(), record); return;
        case 38: device->Tickle(); return;
        case 39: device->GetExternalIPAddress(Cancel(), text); return;
        case 40: return service->ReleaseCommandQueue();
        case 41: return service->ReleaseUPnPServiceSocket(OneIn(2));
        case 42: service->Tickle(); return;
        case 43: service->Command(OneIn(2), Cancel(), "GetStatusInfo", "NewUptime", "", nullptr); return;
        }
    }

    CUPnPDevice* Device()
    {
        const std::size_t count = m_Network != nullptr ? m_Network->NumDevices() : 0;
        return count > 0 ? m_Network->GetUPnPDevice(static_cast<int>(Below(count))) : nullptr;
    }
    CUPnPDevice* Record(const char* nts)
    {
        return MakeRecord(m_Network.get(), {.localAddress = "10.77.1.2",
                                            .source = "10.77.1.1",
                                            .location = Pick(m_Gateways)->Url(),
                                            .usn = "uuid:" + std::to_string(Below(9)),
                                            .nts = nts,
                                            .cacheControl = "max-age=9"});
    }
    HANDLE Cancel()
    {
        OneIn(16) ? SetEvent(m_Cancel) : ResetEvent(m_Cancel);
        return OneIn(4) ? m_Cancel : nullptr;
    }

    /// Nothing is under way any more, so that every device can be dropped, one by each call.
    void ExpectWhole() override
    {
        const std::size_t devices = m_Network != nullptr ? m_Network->NumDevices() : 0;
        for (std::size_t i = 0; i < devices; ++i) {
            CUPnPDevice& device = *m_Network->GetUPnPDevice(static_cast<int>(i));
            if (CUPnPService* const service = device.FindConnectionService()) {
                service->ReleaseCommandQueue();
                service->ReleaseUPnPServiceSocket(false);
                service->Command(false, nullptr, "Probe", nullptr);
                EXPECT_EQ(service->GetCommand(), L"Probe") << "not queued behind one that has gone";
            }
            device.SetRelease(true);
        }
        for (std::size_t left = devices; left > 0; --left)
            m_Network->Tickle();
        EXPECT_TRUE(devices == 0 || m_Network->NumDevices() == 0);
    }

    const TestClock m_Clock{OneIn(4) ? 0xFFFFFFFF - 20000 : 1000000}; // the counter wraps, now and then
    std::vector<std::unique_ptr<GatewayProcess>> m_Gateways;
    std::unique_ptr<CUPnPNetwork> m_Network;
    const HANDLE m_Cancel = CreateEventW(nullptr, 1, 0, nullptr);
};

using RandomHostOnALan = tavronet::OnPrivateLan;

TEST_F(RandomHostOnALan, OfGatewaysLeavesNothingSet)
{
    RunHosts<GatewayHost>(12000, 3000);
}

} // namespace
