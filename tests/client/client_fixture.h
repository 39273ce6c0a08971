// What the client's tests share: a port directory of each test's own, and short ways to say a key or an error.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "client/bytes.h"
#include "client/error.h"
#include "tools/commands.h"

template <typename Call>
std::string ErrorOf(Call call)
{
    try {
        call();
    } catch (const voq::Error& error) {
        return error.what();
    }
    return "(no error)";
}

#define EXPECT_HAS(text, part) \
    EXPECT_NE(std::string(text).find(part), std::string::npos) << (text) << "\nlacks " << (part)

struct Folder {
    std::string path = std::filesystem::temp_directory_path() / "voqcXXXXXX";
    voq::PortDir port;
    PortOptions options;
    Folder()
    {
        if (mkdtemp(path.data()) == nullptr) throw std::runtime_error(path);
        port = {path, voq::LinkType::Ethernet, 1};
        std::filesystem::create_directory(port.Dir());
        options.dir = path;
        options.number = 1;
    }
    ~Folder() { std::filesystem::remove_all(path); }
};

inline void Save(const std::string& path, const voq::Bytes& bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(bytes.size()));
}

inline RegKey Key(std::uint8_t station, std::uint16_t area, std::uint8_t layout, std::uint32_t addr,
                  std::uint16_t width, std::uint32_t subaddr = 0, std::uint32_t flag = 0)
{
    return {flag, 0, 1, station, layout, area, width, addr, subaddr};
}
