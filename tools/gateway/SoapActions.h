#pragma once

#include <string>

#include "MappingTable.h"
#include "Options.h"
#include "SoapMessage.h"

namespace gateway
{

/// What the actions of the connection service do.
class SoapActions
{
public:
    /// @param options borrowed; its identity and misbehaviour may change while the gateway runs
    explicit SoapActions(Options& options) : m_Options(options), m_Table(options.table.capacity) {}

    /// Performs an action for the requester at address `client`. @return 0 or the code of the fault
    int Perform(const SoapAction& action, const std::string& client, Arguments& results);

    MappingTable& Table() { return m_Table; }

private:
    int AddPortMapping(const Arguments& arguments, const std::string& client);
    int DeletePortMapping(const Arguments& arguments);
    int GetSpecificPortMappingEntry(const Arguments& arguments, Arguments& results);
    int GetGenericPortMappingEntry(const Arguments& arguments, Arguments& results);
    int RefusalFor(const Mapping& mapping, const std::string& client);
    void DescribeMapping(Mapping mapping, Arguments& results) const;

    Options& m_Options;
    MappingTable m_Table;
};

} // namespace gateway
