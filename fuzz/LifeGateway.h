#pragma once

#include <set>
#include <string>
#include <vector>

#include "Script.h"

/// A gateway with a mapping table, moved on by the thread that also runs the network. The script says how it
/// answers each request: '0' is rightly.
class LifeGateway
{
public:
    static constexpr const char* kAddress = "10.77.1.2";

    explicit LifeGateway(Script& script);
    ~LifeGateway();
    LifeGateway(const LifeGateway&) = delete;
    LifeGateway& operator=(const LifeGateway&) = delete;

    std::string Url() const { return std::string("http://") + kAddress + ":" + std::to_string(m_Port); }

    /// @return whether anything happened.
    bool Step();

private:
    struct Connection
    {
        int descriptor; // -1: closed
        std::string request;
        std::string later; // sent in the next step
    };

    struct Reply
    {
        std::string now;
        std::string later = {};
        bool ends = false;
    };

    static void Close(Connection& connection);
    bool Serve(Connection& connection);
    Reply ReplyTo(const std::string& request);
    std::string Act(const std::string& request);

    Script& m_Script;
    const int m_Listener;
    unsigned m_Port = 0;
    std::vector<Connection> m_Connections;
    std::set<std::string> m_Mapped; // external ports
};
