// The library's one quicksort: first element as pivot, the partition scheme
// that orders tag lists and counted strings alike. `compare(x, y)` answers
// below, equal or above zero. Single-threaded; no lock.
#pragma once

#include <utility>

namespace zel {

template <typename T, typename Compare>
void quicksort(T *a, int count, Compare compare)
{
    int lo = 0;
    int hi = count - 1;
    // Recurse into the smaller side and loop on the larger one, so that a
    // sorted input costs O(log n) stack instead of O(n).
    while (lo < hi) {
        T pivot = a[lo];
        int i = lo;
        int j = hi;
        while (i < j) {
            while (compare(a[i], pivot) <= 0 && i < hi)
                ++i;
            while (compare(a[j], pivot) >= 1)
                --j;
            if (i < j)
                std::swap(a[i], a[j]);
        }
        std::swap(a[lo], a[j]);
        if (j - lo < hi - j) {
            quicksort(a + lo, j - lo, compare);
            lo = j + 1;
        } else {
            quicksort(a + j + 1, hi - j, compare);
            hi = j - 1;
        }
    }
}

} // namespace zel
