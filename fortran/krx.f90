! The krx module: the library's exported entries for Fortran hosts. Each procedure has the name of
! its entry in lower case and the entry's arguments without the hidden lengths; the wrappers pass
! the length of every character argument themselves. Integer and real arguments the entry only
! reads are intent(in), so constants may be passed: call krx_create(1000, 20, status).
! Integers are integer(c_int) (32 bits) and reals real(c_double); status is 0 on success, 1 on
! failure. Notes, warnings and errors reach the host's callbacks cwVlxmsg, cwVlxerr and cwIopiqr
! (see krx.h), which a host may also register with krx_register_host_callbacks and c_funloc.
module krx
  use, intrinsic :: iso_c_binding, only: c_int, c_double, c_char, c_funptr
  implicit none
  private

  public :: krx_create, krx_set_header, krx_set_node_coordinates_vec, krx_set_nodal_mass, &
            krx_set_nodal_inertia, krx_set_mode_shape_vec, krx_set_modal_stress_vec, &
            krx_set_modal_strain_vec, krx_set_generalized_mass, krx_set_generalized_stiffness, &
            krx_set_interface_node, krx_set_face, krx_units_si_multipliers, krx_write_krx, &
            krx_write_velox_krx, krx_terminate, krx_register_host_callbacks

  ! The entries as the library exports them: every argument by reference, then one hidden length
  ! (int, by value) per character argument, in the order of the character arguments.
  interface
    subroutine raw_create(node_capacity, mode_capacity, status) bind(C, name='KRX_CREATE')
      import :: c_int
      integer(c_int), intent(in) :: node_capacity, mode_capacity
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_header(title, input_name, input_type, comment1, comment2, comment3, &
                              status, title_len, input_name_len, input_type_len, comment1_len, &
                              comment2_len, comment3_len) bind(C, name='KRX_SET_HEADER')
      import :: c_int, c_char
      character(kind=c_char), intent(in) :: title(*), input_name(*), input_type(*), &
                                            comment1(*), comment2(*), comment3(*)
      integer(c_int), intent(out) :: status
      integer(c_int), value :: title_len, input_name_len, input_type_len, comment1_len, &
                               comment2_len, comment3_len
    end subroutine

    subroutine raw_set_node_coordinates_vec(node_id, xyz, status) &
        bind(C, name='KRX_SET_NODE_COORDINATES_VEC')
      import :: c_int, c_double
      integer(c_int), intent(in) :: node_id
      real(c_double), intent(in) :: xyz(3)
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_nodal_mass(node_id, mass, status) bind(C, name='KRX_SET_NODAL_MASS')
      import :: c_int, c_double
      integer(c_int), intent(in) :: node_id
      real(c_double), intent(in) :: mass
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_nodal_inertia(node_id, i11, i22, i33, i12, i13, i23, status) &
        bind(C, name='KRX_SET_NODAL_INERTIA')
      import :: c_int, c_double
      integer(c_int), intent(in) :: node_id
      real(c_double), intent(in) :: i11, i22, i33, i12, i13, i23
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_mode_shape_vec(mode, node_id, values, status) &
        bind(C, name='KRX_SET_MODE_SHAPE_VEC')
      import :: c_int, c_double
      integer(c_int), intent(in) :: mode, node_id
      real(c_double), intent(in) :: values(6)
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_modal_stress_vec(mode, node_id, values, status) &
        bind(C, name='KRX_SET_MODAL_STRESS_VEC')
      import :: c_int, c_double
      integer(c_int), intent(in) :: mode, node_id
      real(c_double), intent(in) :: values(6)
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_modal_strain_vec(mode, node_id, values, status) &
        bind(C, name='KRX_SET_MODAL_STRAIN_VEC')
      import :: c_int, c_double
      integer(c_int), intent(in) :: mode, node_id
      real(c_double), intent(in) :: values(6)
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_generalized_mass(row_mode, col_mode, value, status) &
        bind(C, name='KRX_SET_GENERALIZED_MASS')
      import :: c_int, c_double
      integer(c_int), intent(in) :: row_mode, col_mode
      real(c_double), intent(in) :: value
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_generalized_stiffness(row_mode, col_mode, value, status) &
        bind(C, name='KRX_SET_GENERALIZED_STIFFNESS')
      import :: c_int, c_double
      integer(c_int), intent(in) :: row_mode, col_mode
      real(c_double), intent(in) :: value
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_interface_node(node_id, status) bind(C, name='KRX_SET_INTERFACE_NODE')
      import :: c_int
      integer(c_int), intent(in) :: node_id
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_face(vertex_count, node_ids, status) bind(C, name='KRX_SET_FACE')
      import :: c_int
      integer(c_int), intent(in) :: vertex_count
      integer(c_int), intent(in) :: node_ids(*)
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_units_si_multipliers(mass, length, time, force, status) &
        bind(C, name='KRX_UNITS_SI_MULTIPLIERS')
      import :: c_int, c_double
      real(c_double), intent(in) :: mass, length, time, force
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_write_krx(path, status, path_len) bind(C, name='KRX_WRITE_KRX')
      import :: c_int, c_char
      character(kind=c_char), intent(in) :: path(*)
      integer(c_int), intent(out) :: status
      integer(c_int), value :: path_len
    end subroutine

    subroutine raw_write_velox_krx(path, normal_modes, additional_modes, status, path_len) &
        bind(C, name='KRX_WRITE_VELOX_KRX')
      import :: c_int, c_char
      character(kind=c_char), intent(in) :: path(*)
      integer(c_int), intent(in) :: normal_modes, additional_modes
      integer(c_int), intent(out) :: status
      integer(c_int), value :: path_len
    end subroutine

    subroutine raw_terminate(status) bind(C, name='KRX_TERMINATE')
      import :: c_int
      integer(c_int), intent(out) :: status
    end subroutine

    ! For hosts that cannot export their callbacks: pass c_funloc of bind(C) functions with the
    ! callbacks' interfaces, or c_null_funptr to restore the default of one of them.
    subroutine krx_register_host_callbacks(msg, err, inquiry) &
        bind(C, name='krx_register_host_callbacks')
      import :: c_funptr
      type(c_funptr), value :: msg, err, inquiry
    end subroutine
  end interface

contains

  subroutine krx_create(node_capacity, mode_capacity, status)
    integer(c_int), intent(in) :: node_capacity, mode_capacity
    integer(c_int), intent(out) :: status
    call raw_create(node_capacity, mode_capacity, status)
  end subroutine

  subroutine krx_set_header(title, input_name, input_type, comment1, comment2, comment3, status)
    character(len=*), intent(in) :: title, input_name, input_type, comment1, comment2, comment3
    integer(c_int), intent(out) :: status
    call raw_set_header(title, input_name, input_type, comment1, comment2, comment3, status, &
                        len(title, c_int), len(input_name, c_int), len(input_type, c_int), &
                        len(comment1, c_int), len(comment2, c_int), len(comment3, c_int))
  end subroutine

  subroutine krx_set_node_coordinates_vec(node_id, xyz, status)
    integer(c_int), intent(in) :: node_id
    real(c_double), intent(in) :: xyz(3)
    integer(c_int), intent(out) :: status
    call raw_set_node_coordinates_vec(node_id, xyz, status)
  end subroutine

  subroutine krx_set_nodal_mass(node_id, mass, status)
    integer(c_int), intent(in) :: node_id
    real(c_double), intent(in) :: mass
    integer(c_int), intent(out) :: status
    call raw_set_nodal_mass(node_id, mass, status)
  end subroutine

  subroutine krx_set_nodal_inertia(node_id, i11, i22, i33, i12, i13, i23, status)
    integer(c_int), intent(in) :: node_id
    real(c_double), intent(in) :: i11, i22, i33, i12, i13, i23
    integer(c_int), intent(out) :: status
    call raw_set_nodal_inertia(node_id, i11, i22, i33, i12, i13, i23, status)
  end subroutine

  subroutine krx_set_mode_shape_vec(mode, node_id, values, status)
    integer(c_int), intent(in) :: mode, node_id
    real(c_double), intent(in) :: values(6)
    integer(c_int), intent(out) :: status
    call raw_set_mode_shape_vec(mode, node_id, values, status)
  end subroutine

  subroutine krx_set_modal_stress_vec(mode, node_id, values, status)
    integer(c_int), intent(in) :: mode, node_id
    real(c_double), intent(in) :: values(6)
    integer(c_int), intent(out) :: status
    call raw_set_modal_stress_vec(mode, node_id, values, status)
  end subroutine

  subroutine krx_set_modal_strain_vec(mode, node_id, values, status)
    integer(c_int), intent(in) :: mode, node_id
    real(c_double), intent(in) :: values(6)
    integer(c_int), intent(out) :: status
    call raw_set_modal_strain_vec(mode, node_id, values, status)
  end subroutine

  subroutine krx_set_generalized_mass(row_mode, col_mode, value, status)
    integer(c_int), intent(in) :: row_mode, col_mode
    real(c_double), intent(in) :: value
    integer(c_int), intent(out) :: status
    call raw_set_generalized_mass(row_mode, col_mode, value, status)
  end subroutine

  subroutine krx_set_generalized_stiffness(row_mode, col_mode, value, status)
    integer(c_int), intent(in) :: row_mode, col_mode
    real(c_double), intent(in) :: value
    integer(c_int), intent(out) :: status
    call raw_set_generalized_stiffness(row_mode, col_mode, value, status)
  end subroutine

  subroutine krx_set_interface_node(node_id, status)
    integer(c_int), intent(in) :: node_id
    integer(c_int), intent(out) :: status
    call raw_set_interface_node(node_id, status)
  end subroutine

  subroutine krx_set_face(vertex_count, node_ids, status)
    integer(c_int), intent(in) :: vertex_count
    integer(c_int), intent(in) :: node_ids(*)
    integer(c_int), intent(out) :: status
    call raw_set_face(vertex_count, node_ids, status)
  end subroutine

  subroutine krx_units_si_multipliers(mass, length, time, force, status)
    real(c_double), intent(in) :: mass, length, time, force
    integer(c_int), intent(out) :: status
    call raw_units_si_multipliers(mass, length, time, force, status)
  end subroutine

  subroutine krx_write_krx(path, status)
    character(len=*), intent(in) :: path
    integer(c_int), intent(out) :: status
    call raw_write_krx(path, status, len(path, c_int))
  end subroutine

  subroutine krx_write_velox_krx(path, normal_modes, additional_modes, status)
    character(len=*), intent(in) :: path
    integer(c_int), intent(in) :: normal_modes, additional_modes
    integer(c_int), intent(out) :: status
    call raw_write_velox_krx(path, normal_modes, additional_modes, status, len(path, c_int))
  end subroutine

  subroutine krx_terminate(status)
    integer(c_int), intent(out) :: status
    call raw_terminate(status)
  end subroutine

end module krx
