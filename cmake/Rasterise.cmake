# The artwork is kept as drawings. The build makes what Windows needs from them, with the same bits every time.
foreach(tool rsvg-convert convert icotool)
  string(MAKE_C_IDENTIFIER "RASTERISE_${tool}" variable)
  string(TOUPPER "${variable}" variable)
  find_program(${variable} ${tool})
  if(NOT ${variable})
    message(FATAL_ERROR "${tool} is missing, which makes the artwork. Run scripts/setup to install it.")
  endif()
endforeach()

# rasterise_banner(<svg> <out.bmp>): 640 x 192 pixels, 24 bits each, with the plain 40-byte header: LoadBitmap is not
# documented to read transparency or a newer header.
function(rasterise_banner svg out)
  cmake_path(ABSOLUTE_PATH svg)
  cmake_path(ABSOLUTE_PATH out BASE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
  cmake_path(GET out PARENT_PATH dir)
  cmake_path(GET out FILENAME name)
  file(MAKE_DIRECTORY ${dir})
  add_custom_command(OUTPUT ${out}
    COMMAND ${RASTERISE_RSVG_CONVERT} --width 640 --height 192 --output ${out}.png ${svg}
    COMMAND ${RASTERISE_CONVERT} ${out}.png -alpha off -type TrueColor -compress None BMP3:${out}
    BYPRODUCTS ${out}.png
    DEPENDS ${svg}
    COMMENT "Drawing ${name}"
    VERBATIM)
endfunction()

# rasterise_icon(<svg> <small svg> <out.ico>): the sizes that Windows needs at scales up to 200 %, and 256 pixels, from which it scales
# all others (128 pixels would add 66 KB). Below 32 pixels a simpler drawing is used, as details blur there. Only 256 pixels are stored
# as PNG: as a bitmap they would take a quarter of a megabyte, and smaller PNG pictures are not documented to work.
function(rasterise_icon svg smallSvg out)
  cmake_path(ABSOLUTE_PATH svg)
  cmake_path(ABSOLUTE_PATH smallSvg)
  cmake_path(ABSOLUTE_PATH out BASE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
  cmake_path(GET out PARENT_PATH dir)
  cmake_path(GET out FILENAME name)
  file(MAKE_DIRECTORY ${dir})
  set(draw)
  set(pictures)
  set(arguments)
  foreach(size 16 20 24 32 40 48 64 256)
    set(source ${svg})
    if(size LESS 32)
      set(source ${smallSvg})
    endif()
    set(picture ${out}.${size}.png)
    list(APPEND draw COMMAND ${RASTERISE_RSVG_CONVERT} --width ${size} --height ${size} --output ${picture} ${source})
    list(APPEND pictures ${picture})
    if(size EQUAL 256)
      list(APPEND arguments --raw=${picture})
    else()
      list(APPEND arguments ${picture})
    endif()
  endforeach()
  add_custom_command(OUTPUT ${out}
    ${draw}
    COMMAND ${RASTERISE_ICOTOOL} --create --output=${out} ${arguments}
    BYPRODUCTS ${pictures}
    DEPENDS ${svg} ${smallSvg}
    COMMENT "Drawing ${name}"
    VERBATIM)
endfunction()
