// What the address sanitizer is to do, for every target and also when a crash is run again by hand.

// Larger blocks are refused: the code must bear that, and the sanitizer would touch every page of them.
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=32";
}
