/* Heap allocation counter of the benchmark program. */
#ifndef QUARRY_BENCH_ALLOC_COUNT_H
#define QUARRY_BENCH_ALLOC_COUNT_H

#ifdef __cplusplus
extern "C" {
#endif

/* 1 when allocations are counted; 0 in a sanitizer build, whose runtime
 * owns malloc. */
int quarry_bench_alloc_counting(void);

/* Starts (nonzero) or stops (0) counting. */
void quarry_bench_alloc_track(int on);

/* Calls of malloc, calloc and realloc made while counting was on. */
unsigned long long quarry_bench_alloc_count(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* QUARRY_BENCH_ALLOC_COUNT_H */
