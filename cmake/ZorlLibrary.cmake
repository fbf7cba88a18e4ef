# zorl_add_library(<name> ALIAS <alias> SOURCES ... [PUBLIC_DEPS ...] [PRIVATE_DEPS ...])
# One shared library with its public include folder, hidden visibility, an
# export macro header generated as <include>/zorl/<short>/export.h, and install rules.
include(GenerateExportHeader)
function(zorl_add_library name)
  cmake_parse_arguments(ARG "" "ALIAS;INCLUDE_DIR;EXPORT_HEADER;EXPORT_MACRO" "SOURCES;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  add_library(zorl::${ARG_ALIAS} ALIAS ${name})
  set_target_properties(${name} PROPERTIES EXPORT_NAME ${ARG_ALIAS}
                        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
                        # Installed, each library finds its siblings beside itself: a client's
                        # RUNPATH does not apply to the dependencies of the libraries it loads.
                        INSTALL_RPATH "$ORIGIN")
  generate_export_header(${name} BASE_NAME ${name}
                         EXPORT_MACRO_NAME ${ARG_EXPORT_MACRO}
                         EXPORT_FILE_NAME ${CMAKE_CURRENT_BINARY_DIR}/generated/${ARG_EXPORT_HEADER})
  target_include_directories(${name} PUBLIC
      $<BUILD_INTERFACE:${ARG_INCLUDE_DIR}>
      $<BUILD_INTERFACE:${CMAKE_CURRENT_BINARY_DIR}/generated>
      $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  if(ZORL_INSTALL)
    install(TARGETS ${name} EXPORT zorl_image_processing_targets
            LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
            ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
            RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(DIRECTORY ${ARG_INCLUDE_DIR}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
    get_filename_component(hdr_dir ${ARG_EXPORT_HEADER} DIRECTORY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/generated/${ARG_EXPORT_HEADER}
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${hdr_dir})
  endif()
endfunction()
