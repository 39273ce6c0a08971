// Resolves the port options. Main thread; reads the project's description.
#include "tools/target.h"

using voq::LinkFromByte;
using voq::LinkFromName;

Target Resolve(const PortOptions& options)
{
    Target target;
    target.port.user = options.dir;
    target.index = options.index;
    if (!options.project.empty()) target.project = LoadProjectToml(options.project);
    if (options.number) {
        const auto link = LinkFromName(options.link);
        if (!link) throw UsageError("--link: \"" + options.link + "\" is none of ethernet, serial, can");
        target.port.link = *link;
        target.port.number = *options.number;
    } else if (target.project) {
        const auto& ports = target.project->project.ports;
        if (options.index >= ports.size()) {
            throw UsageError("--index: " + options.project + " has " + std::to_string(ports.size()) +
                             " port(s), the first is 0");
        }
        target.port.link = LinkFromByte(ports[options.index].linkType).value_or(voq::LinkType::Ethernet);
        target.port.number = ports[options.index].portNo;
    } else {
        throw UsageError("which port? Give --port with --link, or --project with --index");
    }
    if (options.fifo != "gui" && options.fifo != "mek") {
        throw UsageError("--fifo: \"" + options.fifo + "\" is neither gui nor mek");
    }
    target.fifo = options.fifo == "gui" ? target.port.GuiFifo() : target.port.MekFifo();
    return target;
}
