// The device's hand-editable scripts, the one table of them: the number a
// request carries, the word operators type, where the device keeps the
// script, and the name a copy of it gets in a backup.
#pragma once

#include <stdint.h>

enum script_number : uint8_t { script_cbq = 1, script_fw = 2, script_nat = 3, script_dhcp = 7 };

struct script_entry {
    uint8_t number;
    const char* word;
    const char* path;  // on the device
    const char* file;  // in a backup: the path's last part
};

inline constexpr script_entry script_table[] = {
    {script_cbq, "cbq", "/etc/config/cbq.scr", "cbq.scr"},
    {script_fw, "fw", "/etc/config/fw.scr", "fw.scr"},
    {script_nat, "nat", "/etc/config/nat.scr", "nat.scr"},
    {script_dhcp, "dhcp", "/etc/config/dhcpd.conf", "dhcpd.conf"},
};

// The entry, or nullptr when no script has that number or word.
const script_entry* script_by_number(int number);
const script_entry* script_by_word(const char* word);
