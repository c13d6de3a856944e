// Running median over a fixed window without re-sorting: the nodes form a ring by
// age and a sorted ring by value at the same time; the median cursor moves by at
// most one node per insertion.
#pragma once

#include <cstdint>

struct sMedianFilterNode_t {
    int32_t value;
    sMedianFilterNode_t* nextAge;
    sMedianFilterNode_t* prevValue;
    sMedianFilterNode_t* nextValue;
};

struct sMedianFilter_t {
    unsigned int numNodes;
    sMedianFilterNode_t* medianBuffer;
    sMedianFilterNode_t* ageHead;
    sMedianFilterNode_t* valueHead;
    sMedianFilterNode_t* medianHead;
};

// -1 for a null filter or buffer, or a node count that is even or 1; 0 on success.
// The window starts filled with zeros.
int MEDIANFILTER_Init(sMedianFilter_t* filter);
// Replaces the oldest value with `value`; returns the median of the window.
int32_t MEDIANFILTER_Insert(sMedianFilter_t* filter, int32_t value);
