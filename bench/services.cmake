find_package(CLI11 REQUIRED)

# Beside the module, as the agent is: the program finds it the same way.
add_executable(bench_services
  services_files.cpp
  services_main.cpp
  services_memory.cpp
  services_records.cpp
  services_routes.cpp
  services_rules.cpp
  services_store.cpp)
target_link_libraries(bench_services PRIVATE agent_objects CLI11::CLI11 kavel_warnings)
add_dependencies(bench_services vqAdvancedDns)
set_target_properties(bench_services PROPERTIES ENABLE_EXPORTS ON)
# json-c and protobuf-c are there for the module, whether or not this program calls them.
target_link_options(bench_services PRIVATE -Wl,--no-as-needed)
add_dependencies(bench bench_services)
