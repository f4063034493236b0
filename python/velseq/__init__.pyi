# stubs
