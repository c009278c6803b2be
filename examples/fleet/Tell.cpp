#include "Tell.h"

#include <iostream>

std::string oneLine(std::string text)
{
    text.erase(text.find_last_not_of(" \t\r\n") + 1);
    for (char& byte : text) {
        if (static_cast<unsigned char>(byte) < ' ' || byte == '\x7f')
            byte = ' ';
    }
    return text;
}

void tell(const std::string& text)
{
    std::cerr << "fleet-hub: " + oneLine(text) + '\n';
}
