! A host program written the way a Fortran finite-element code calls the library: every argument
! by reference, the hidden lengths of character arguments after all others, and the three
! callbacks defined here. Exits with a nonzero code on the first unexpected result.
module host
  use iso_c_binding
  implicit none
  integer :: notes = 0, warnings = 0, errors = 0
  character(len=256) :: last_note = '', last_error = ''
  interface
    subroutine krx_create(nodes, modes, status) bind(C, name='KRX_CREATE')
      import :: c_int
      integer(c_int) :: nodes, modes, status
    end subroutine
    subroutine krx_set_header(title, name, type, c1, c2, c3, status, l1, l2, l3, l4, l5, l6) &
        bind(C, name='KRX_SET_HEADER')
      import :: c_int, c_char
      character(kind=c_char), dimension(*) :: title, name, type, c1, c2, c3
      integer(c_int) :: status
      integer(c_int), value :: l1, l2, l3, l4, l5, l6
    end subroutine
    subroutine krx_set_mode_shape_vec(mode, id, values, status) &
        bind(C, name='KRX_SET_MODE_SHAPE_VEC')
      import :: c_int, c_double
      integer(c_int) :: mode, id, status
      real(c_double) :: values(6)
    end subroutine
    subroutine krx_set_face(count, ids, status) bind(C, name='KRX_SET_FACE')
      import :: c_int
      integer(c_int) :: count, ids(*), status
    end subroutine
    subroutine krx_terminate(status) bind(C, name='KRX_TERMINATE')
      import :: c_int
      integer(c_int) :: status
    end subroutine
  end interface
contains
  function c_text(text) result(out)
    type(c_ptr), value :: text
    character(len=256) :: out
    character(kind=c_char), pointer :: chars(:)
    integer :: n
    call c_f_pointer(text, chars, [len(out)])
    out = ''
    do n = 1, len(out)
      if (chars(n) == c_null_char) exit
      out(n:n) = chars(n)
    end do
  end function

  integer(c_int) function cw_vlxmsg(text) bind(C, name='cwVlxmsg')
    type(c_ptr), value :: text
    notes = notes + 1
    if (c_text(text) /= '') last_note = c_text(text)
    cw_vlxmsg = 0
  end function

  integer(c_int) function cw_vlxerr(level, text) bind(C, name='cwVlxerr')
    integer(c_int), value :: level
    type(c_ptr), value :: text
    if (level == 2) warnings = warnings + 1
    if (level == 3) errors = errors + 1
    last_error = c_text(text)
    cw_vlxerr = 0
  end function

  integer(c_int) function cw_iopiqr(key) bind(C, name='cwIopiqr')
    integer(c_int) :: key
    cw_iopiqr = merge(0, -1, key == 4)
  end function
end module


program fortran_host
  use iso_c_binding
  use host
  implicit none
  character(len=127) :: title = 'Beam model', input_name = 'beam.fem'
  character(len=15) :: input_type = 'VELOX'
  character(len=79) :: comment = 'made by the Fortran host'
  integer(c_int) :: status, nodes = 100, modes = 2, node, mode, count, ids(9) = [(node, node = 1, 9)]
  real(c_double) :: values(6)

  call krx_terminate(status)
  call expect(status == 1 .and. last_error == 'No KRXDATA object.  Call KRX_CREATE first', &
              'KRX_TERMINATE before KRX_CREATE')
  call krx_create(nodes, modes, status)
  call expect(status == 0, 'KRX_CREATE')
  call krx_set_header(title, input_name, input_type, comment, comment, comment, status, &
                      len(title), len(input_name), len(input_type), len(comment), &
                      len(comment), len(comment))
  call expect(status == 0 .and. notes == 6, 'KRX_SET_HEADER and its six notes')
  call expect(last_note == 'Comment 3: made by the Fortran host', 'the last header note')

  do node = 1, 9
    do mode = 1, 3
      values = 0.0d0
      values(mode) = 1.0d0
      call krx_set_mode_shape_vec(mode, node, values, status)
      call expect(status == merge(1, 0, mode == 3), 'KRX_SET_MODE_SHAPE_VEC, mode 3 beyond the capacity')
    end do
  end do

  count = 9
  call krx_set_face(count, ids, status)
  call expect(status == 0 .and. last_error == 'Unable to create a face with 9 vertices', &
              'KRX_SET_FACE with 9 vertices')
  count = 4
  call krx_set_face(count, ids, status)
  call expect(status == 0, 'KRX_SET_FACE with 4 vertices')
  call krx_terminate(status)
  call expect(status == 0, 'KRX_TERMINATE')
  call expect(errors == 11 .and. warnings == 0, 'errors: terminate, nine third modes, the face')
  print '(a, 3i4)', 'fortran host: notes, warnings, errors =', notes, warnings, errors

contains
  subroutine expect(condition, what)
    logical, intent(in) :: condition
    character(len=*), intent(in) :: what
    if (.not. condition) then
      print '(2a)', 'fortran host: unexpected result: ', what
      error stop 1
    end if
  end subroutine
end program
