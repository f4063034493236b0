# The differential harness shared by the fuzz target and the reliability
# tests: element families, plain model, tree checker, operation driver.  It
# reads the module's list of element types (velseq_internal) for itself only.
set(VELREL_DIR ${PROJECT_SOURCE_DIR}/fuzz)
add_library(velrel_harness STATIC
  ${VELREL_DIR}/harness/families.cpp
  ${VELREL_DIR}/harness/model.cpp
  ${VELREL_DIR}/harness/tree_check.cpp
  ${VELREL_DIR}/harness/driver.cpp
  ${VELREL_DIR}/harness/env.cpp)
target_include_directories(velrel_harness PUBLIC ${VELREL_DIR})
target_link_libraries(velrel_harness PUBLIC velseq_static velseq_layout velhost
                      PRIVATE velseq_internal)
