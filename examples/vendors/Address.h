#ifndef VENDORS_ADDRESS_H
#define VENDORS_ADDRESS_H

#include <string>

// The notations of network addresses: "00:22:72:0a:0b:0c", "00-22-72-0A-0B-0C", "0022.720a.0b0c" and
// "0022720A0B0C", and the same for the blocks that addresses are assigned in.

// The 12 hexadecimal digits of an address, in capitals; empty when the text is no address.
std::string addressDigits(const std::string& text);

// The 6, 7 or 9 hexadecimal digits that the addresses of a block begin with, in capitals; empty when
// the text is no block.
std::string blockDigits(const std::string& text);

#endif
