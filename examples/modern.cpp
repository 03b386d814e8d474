#include <Z/zbase.hpp>

#include <algorithm>
#include <chrono>
#include <iostream>

using namespace std::chrono_literals;

// What is set, as text, truth, number, and several at once.
static void read(const zbase::file& f) {
    std::cout << "level " << f["log"]["level"].value_or("info") << ", timeout "
              << f["listener"]["timeout"].value_or(60) << ", port "
              << f["listener"]["port"].get<int>() << "\n";
    if (const std::optional<bool> tls = f["listener"]["tls"].as<bool>())
        std::cout << "tls is " << (*tls ? "on" : "off") << "\n";

    for (const auto& stanza : f)
        for (const auto& key : stanza)
            if (key.size() > 1) {
                std::cout << "[" << stanza.name() << "] " << key.name() << ":";
                for (const std::string& value : key.values())
                    std::cout << " " << value;
                std::cout << "\n";
            }
    std::cout << std::count_if(f.begin(), f.end(), [](const zbase::stanza& stanza) {
        return stanza.contains("media");
    }) << " printers\n";
}

// Changes that other programs see all at once, or never.
static void change(zbase::file& f) {
    {
        zbase::update u(f, 10s);  // nobody else writes from here to its end
        f["queue"]["jobs"] = f["queue"]["jobs"].value_or(0) + 1;
        f["queue"]["jobs"].add_comment("# Counted by examples/modern.cpp.");
        f["listener"]["address"].add("::1");
        f["log"]["keep"].erase();
        u.commit();
    }
    zbase::update u(f);
    f.erase("listener");
}  // no commit: all is as it was

int main() {
    try {
        zbase::file f("service.conf");
        read(f);

        zbase::file other("service.conf");
        zbase::watch w(f);
        change(other);
        w.process([](const zbase::change& c) {
            std::cout << "changed: [" << c.stanza << "] " << c.key.value_or("") << "\n";
        });
        for (const std::string& line : f["queue"]["jobs"].comments())
            std::cout << line << "\n";
        std::cout << f["log"]["level"].get<int>() << "\n";
    } catch (const zbase::bad_value& failure) {
        std::cout << "no number: " << failure.text() << "\n";
    } catch (const zbase::error& failure) {
        std::cerr << failure.what() << "\n";
        return 1;
    }
}
