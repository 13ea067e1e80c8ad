#include "natural_order.h"

#include <ctype.h>

bool natural_less(const std::string& a, const std::string& b) {
    size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (isdigit((unsigned char)a[i]) && isdigit((unsigned char)b[j])) {
            size_t ei = i, ej = j;
            while (ei < a.size() && isdigit((unsigned char)a[ei])) ei++;
            while (ej < b.size() && isdigit((unsigned char)b[ej])) ej++;
            // Without leading zeros the longer run is the larger number.
            size_t zi = a.find_first_not_of('0', i), zj = b.find_first_not_of('0', j);
            std::string x = a.substr(std::min(zi, ei), ei - std::min(zi, ei));
            std::string y = b.substr(std::min(zj, ej), ej - std::min(zj, ej));
            if (x.size() != y.size()) return x.size() < y.size();
            if (x != y) return x < y;
            i = ei, j = ej;
            continue;
        }
        if (a[i] != b[j]) return (unsigned char)a[i] < (unsigned char)b[j];
        i++, j++;
    }
    if (a.size() - i != b.size() - j) return a.size() - i < b.size() - j;
    return a < b;  // "r01" and "r1": still one order
}
