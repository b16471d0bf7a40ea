# zel_add_texts(LAYER): compiles every ui/translations/*.ts into the layer's objects as the resource ZELUpdaterTexts,
# so that both the layer's static library and the shared library made of its objects carry the tables.
function(zel_add_texts layer)
    set(folder ${CMAKE_BINARY_DIR}/texts)
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/ui/translations/*.ts)
    set_source_files_properties(${sources} PROPERTIES OUTPUT_LOCATION ${folder})
    qt_add_translation(tables ${sources} OPTIONS -silent)
    set(entries "")
    foreach(table ${tables})
        get_filename_component(name ${table} NAME)
        string(APPEND entries "<file>${name}</file>\n")
    endforeach()
    file(CONFIGURE OUTPUT ${folder}/ZELUpdaterTexts.qrc
        CONTENT "<RCC><qresource prefix=\"/ZELUpdater/texts\">\n${entries}</qresource></RCC>\n" @ONLY)
    qt_add_resources(resource ${folder}/ZELUpdaterTexts.qrc)
    target_sources(zel_${layer} PRIVATE ${resource})
endfunction()
