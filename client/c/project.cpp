// Descriptions of projects, for C. Any thread; a project does not change.
#include "client/c/handles.h"

int voq_project_load(const char* file, voq_project** project, voq_error* error)
{
    *project = nullptr;
    return voq::WithoutPort(error, [&] {
        auto loaded = std::make_unique<voq_project>();
        loaded->description = std::make_shared<const voq::Description>(voq::LoadDescription(file));
        for (const voq::DescribedPort& port : loaded->description->ports) {
            voq::PortDir place;
            place.link = voq::LinkFromByte(port.record.linkType).value_or(voq::LinkType::Ethernet);
            place.number = port.record.portNo;
            loaded->ports.push_back(place);
            loaded->portNames.push_back(place.Name());
            loaded->names.emplace_back();
            for (const voq::DescribedRegister& reg : loaded->description->registers) {
                if (!reg.name.empty() && reg.reg.key.portno == place.number) loaded->names.back().push_back(&reg.name);
            }
        }
        *project = loaded.release();
    });
}

void voq_project_free(voq_project* project)
{
    delete project;
}

size_t voq_project_ports(const voq_project* project)
{
    return project->ports.size();
}

const char* voq_project_port_name(const voq_project* project, size_t index)
{
    return index < project->ports.size() ? project->portNames[index].c_str() : nullptr;
}

size_t voq_project_names(const voq_project* project, size_t index)
{
    return index < project->ports.size() ? project->names[index].size() : 0;
}

const char* voq_project_name(const voq_project* project, size_t index, size_t number)
{
    return number < voq_project_names(project, index) ? project->names[index][number]->c_str() : nullptr;
}
