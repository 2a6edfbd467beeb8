# The dispatch target drives the simulator in-process: its request handling
# is the static library tqsim_core.
target_link_libraries(${name} PRIVATE tqsim_core)
