peer(LIBUNWIND unwind libunwind.h)
