# The web page's files become a C++ table at build time (web_embed.cmake),
# so that kelputil carries them: kelputil_web holds find_web_asset.
file(GLOB_RECURSE kelp_web_files CONFIGURE_DEPENDS
  ${CMAKE_CURRENT_LIST_DIR}/web/*.html ${CMAKE_CURRENT_LIST_DIR}/web/*.css
  ${CMAKE_CURRENT_LIST_DIR}/web/*.js ${CMAKE_CURRENT_LIST_DIR}/web/*.svg)
set(kelp_web_table ${CMAKE_CURRENT_BINARY_DIR}/web_asset_table.cpp)
add_custom_command(OUTPUT ${kelp_web_table}
  COMMAND ${CMAKE_COMMAND} -DWEB_DIR=${CMAKE_CURRENT_LIST_DIR}/web -DOUT=${kelp_web_table}
          -P ${CMAKE_CURRENT_LIST_DIR}/web_embed.cmake
  DEPENDS ${kelp_web_files} ${CMAKE_CURRENT_LIST_DIR}/web_embed.cmake
  COMMENT "Embedding the web page")
add_library(kelputil_web STATIC ${CMAKE_CURRENT_LIST_DIR}/web_assets.cpp ${kelp_web_table})
target_include_directories(kelputil_web PUBLIC ${CMAKE_CURRENT_LIST_DIR})
