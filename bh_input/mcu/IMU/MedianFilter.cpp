#include "bh_input/mcu/IMU/MedianFilter.h"

#include <cstddef>

int MEDIANFILTER_Init(sMedianFilter_t* filter) {
    if (!filter || !filter->medianBuffer || filter->numNodes % 2 == 0 || filter->numNodes == 1) {
        return -1;
    }
    const unsigned int n = filter->numNodes;
    sMedianFilterNode_t* nodes = filter->medianBuffer;
    for (unsigned int i = 0; i < n; ++i) {
        nodes[i].value = 0;
        nodes[i].nextAge = &nodes[(i + 1) % n];
        nodes[i].nextValue = &nodes[(i + 1) % n];
        nodes[i].prevValue = &nodes[(i + n - 1) % n];
    }
    filter->ageHead = &nodes[0];
    filter->valueHead = &nodes[0];
    filter->medianHead = &nodes[n / 2];
    return 0;
}

int32_t MEDIANFILTER_Insert(sMedianFilter_t* filter, int32_t value) {
    sMedianFilterNode_t* node = filter->ageHead;
    const unsigned int n = filter->numNodes;

    // Where the oldest node stands relative to the median, by position in the
    // value ring (values may repeat, so the position decides, not the value).
    bool removed_upper = false;
    {
        sMedianFilterNode_t* it = filter->valueHead;
        for (unsigned int i = 0; i < n; ++i, it = it->nextValue) {
            if (it == node) {
                removed_upper = i >= n / 2;
                break;
            }
        }
    }
    // Take it out of the value ring; the median cursor then stands one place
    // lower in the shorter ring whichever side the node was on.
    if (removed_upper) {
        filter->medianHead = filter->medianHead->prevValue;
    }
    if (node == filter->valueHead) {
        filter->valueHead = node->nextValue;
    }
    node->prevValue->nextValue = node->nextValue;
    node->nextValue->prevValue = node->prevValue;

    node->value = value;
    filter->ageHead = node->nextAge;

    // Insert before the first node above the new value (after equal ones).
    sMedianFilterNode_t* it = filter->valueHead;
    unsigned int i = 0;
    for (; i < n - 1; ++i) {
        if (value < it->value) {
            break;
        }
        it = it->nextValue;
    }
    if (i == 0) {
        filter->valueHead = node;
    }
    node->nextValue = it;
    node->prevValue = it->prevValue;
    it->prevValue->nextValue = node;
    it->prevValue = node;

    // A node placed above the cursor pushes the median one place up.
    if (value >= filter->medianHead->value && node != filter->valueHead) {
        filter->medianHead = filter->medianHead->nextValue;
    }
    return filter->medianHead->value;
}
