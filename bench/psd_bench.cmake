include(${CMAKE_CURRENT_LIST_DIR}/magickwand.cmake)
