#include "Description.h"

#include <algorithm>

namespace gateway
{

namespace
{

std::string Organisation(const Model& model)
{
    return model.dslForum ? "urn:dslforum-org" : "urn:schemas-upnp-org";
}

/// "urn:schemas-upnp-org:device:WANDevice:1"; the devices and services on the way to the connection service
/// carry the version of the model.
std::string TypeName(const Model& model, const std::string& kind, const std::string& name)
{
    return Organisation(model) + ":" + kind + ":" + name + (model.version2 ? ":2" : ":1");
}

class DescriptionWriter
{
public:
    DescriptionWriter(const DescriptionOptions& options, const Identity& identity, const std::string& base)
        : m_Options(options), m_Identity(identity), m_Base(base), m_Xml(options.style)
    {
    }

    std::string Write()
    {
        const std::string space = "\"" + Organisation(m_Options.model) + ":device-1-0\"";
        const std::string& prefix = m_Options.style.prefix;
        m_Xml.Declaration();
        m_Xml.Open("root", (prefix.empty() ? "xmlns=" : "xmlns:" + prefix + "=") + space);
        m_Xml.Open("specVersion");
        m_Xml.Leaf("major", "1");
        m_Xml.Leaf("minor", m_Options.model.version2 ? "1" : "0");
        m_Xml.Close();
        if (!m_Options.urlBase.empty())
            m_Xml.Leaf("URLBase", m_Options.urlBase == "auto" ? m_Base : m_Options.urlBase);
        WriteDevice(0);
        m_Xml.Close();
        return m_Xml.Text();
    }

private:
    /// A device and, inside it, those below; the deepest one carries the connection services.
    void WriteDevice(int level)
    {
        const bool root = level == 0, deepest = level == m_Options.embedding;
        m_Xml.Open("device");
        WriteFacts(level, root ? "InternetGatewayDevice" : deepest ? "WANConnectionDevice" : "WANDevice");
        m_Xml.Open("serviceList");
        if (root)
            WriteService("urn:schemas-upnp-org:service:Layer3Forwarding:1", "L3Forwarding1", "/ctl/L3F");
        else if (!deepest)
            WriteService("urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1", "WANCommonIFC1",
                         "/ctl/CmnIfCfg");
        if (deepest) {
            for (const ConnectionService& service : ConnectionServices(m_Options.model))
                WriteService(service.type, service.name, service.path);
        }
        m_Xml.Close();
        if (!deepest) {
            m_Xml.Open("deviceList");
            WriteDevice(level + 1);
            m_Xml.Close();
        } else if (root) {
            m_Xml.Leaf("presentationURL", m_Base + "/");
        }
        m_Xml.Close();
    }

    void WriteFacts(int level, const std::string& device)
    {
        m_Xml.Leaf("deviceType", TypeName(m_Options.model, "device", device));
        m_Xml.Leaf("friendlyName", level == 0 ? m_Identity.friendlyName : device);
        m_Xml.Leaf("manufacturer", m_Identity.manufacturer);
        m_Xml.Leaf("manufacturerURL", "http://gateway.example/");
        m_Xml.Leaf("modelDescription", "Simulated " + device);
        m_Xml.Leaf("modelName", "tavronet-gateway");
        m_Xml.Leaf("modelNumber", "1");
        m_Xml.Leaf("serialNumber", "0");
        m_Xml.Leaf("UDN", DeviceName(m_Identity, level));
    }

    void WriteService(const std::string& type, const std::string& id, const std::string& path)
    {
        m_Xml.Open("service");
        m_Xml.Leaf("serviceType", type);
        m_Xml.Leaf("serviceId", "urn:upnp-org:serviceId:" + id);
        m_Xml.Leaf("controlURL", ControlUrl(path));
        m_Xml.Leaf("eventSubURL", "/evt" + path.substr(path.rfind('/')));
        m_Xml.Leaf("SCPDURL", "/scpd" + path.substr(path.rfind('/')) + ".xml");
        m_Xml.Close();
    }

    std::string ControlUrl(const std::string& path) const
    {
        if (m_Options.controlUrl == "relative")
            return path;
        return m_Options.controlUrl == "absolute" ? m_Base + path : m_Options.controlUrl;
    }

    const DescriptionOptions& m_Options;
    const Identity& m_Identity;
    const std::string& m_Base;
    XmlWriter m_Xml;
};

} // namespace

std::vector<ConnectionService> ConnectionServices(const Model& model)
{
    const ConnectionService ip{TypeName(model, "service", "WANIPConnection"), "WANIPConn1", "/ctl/IPConn"};
    const ConnectionService ppp{TypeName(model, "service", "WANPPPConnection"), "WANPPPConn1",
                                "/ctl/PPPConn"};
    if (model.pppFirst)
        return {ppp, ip};
    return {model.ppp ? ppp : ip};
}

bool AnswersSearch(const Model& model, const std::string& target)
{
    if (target == "ssdp:all" || target == "upnp:rootdevice")
        return true;

    std::vector<std::string> offered;
    for (const char* const device : {"InternetGatewayDevice", "WANDevice", "WANConnectionDevice"})
        offered.push_back("urn:schemas-upnp-org:device:" + std::string(device));
    for (const ConnectionService& service : ConnectionServices(model))
        offered.push_back(service.type.substr(0, service.type.rfind(':')));

    // A device of version 2 answers those who look for version 1.
    const std::string wanted = target.substr(0, target.rfind(':'));
    const std::string version = target.substr(std::min(target.size(), wanted.size() + 1));
    const bool versionFits = version == "1" || (version == "2" && model.version2);
    return versionFits && std::ranges::find(offered, wanted) != offered.end();
}

std::string DeviceName(const Identity& identity, int level)
{
    return "uuid:" + identity.uuid + (level == 0 ? "" : "-" + std::to_string(level));
}

std::string MakeDescription(const DescriptionOptions& options, const Identity& identity,
                            const std::string& base)
{
    return DescriptionWriter(options, identity, base).Write();
}

} // namespace gateway
